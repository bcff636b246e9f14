#include "history/Comparisons.h"

#include "base/HelperLog.h"
#include "history/MemoryReturn.h"
#include "history/NetChange.h"
#include "history/index/Comparison.h"

namespace quillmark {
namespace {

using SnapshotIndex::ComparisonMode;
using SnapshotIndex::ShardedEntries;

ComparisonKey keyOf(const ComparisonRequest& request) {
  return {request.volume.key(), request.a.xid, request.b.xid, request.includeTree, request.fullScan};
}

}  // namespace

Comparisons::Comparisons(const HistoryServices& services, SnapshotHistoryStore& store, HistoryWork& work,
                         SnapshotScans& scans, IndexRun& runs, IndexProgress& progress, ComparisonCache& cache)
    : services_(services), store_(store), work_(work), scans_(scans), runs_(runs), progress_(progress), cache_(cache) {}

Comparisons::Answer Comparisons::compare(const ComparisonRequest& request) {
  if (auto known = cache_.find(keyOf(request))) return {std::move(known), {}};
  if (request.fullScan) return fullScan(request);
  if (!bothReady(request)) indexPending(request.volume);
  if (!bothReady(request)) return fallback(request);
  Answer answer{std::make_shared<Comparison>(request.includeTree ? treesFromHistory(request) : fromHistory(request)),
                {}};
  cache_.insert(keyOf(request), answer.comparison);
  return answer;
}

void Comparisons::indexPending(const VolumeInfo& volume) {
  if (!work_.isEnabled()) return;
  try {
    runs_.run(volume, Forced::yes);
  } catch (const std::exception& exception) {
    // It may have been another snapshot that could not be read.
    const Error failure = asError(exception);
    if (HistoryWork::isCancellation(failure)) throw;
    services_.log.error("snapshot (re)index failed: " + failure.description());
  }
}

bool Comparisons::bothReady(const ComparisonRequest& request) {
  const VolumeUuid volume = request.volume.key();
  return store_.isReady(volume, request.a.xid) && store_.isReady(volume, request.b.xid);
}

// Nothing of it enters the history: the trees hold what is excluded.
Comparisons::Answer Comparisons::fullScan(const ComparisonRequest& request) {
  const auto scan = [&](const StoredSnapshot& snapshot) {
    return scans_.scan({.volume = request.volume,
                        .snapshot = snapshot,
                        .label = "One-off full-scan comparison",
                        .ignoreExclusions = true,
                        .lowPriority = false});
  };
  const ShardedEntries a = scan(request.a);
  MemoryReturn::Held held(services_.memory, a.count());
  const ShardedEntries b = scan(request.b);
  held.holds(a.count() + b.count());
  Answer answer{std::make_shared<Comparison>(ofTrees(a, b, request.includeTree)), {}};
  cache_.insert(keyOf(request), answer.comparison);
  progress_.done(request.volume.key());
  return answer;
}

Comparison Comparisons::ofTrees(const ShardedEntries& a, const ShardedEntries& b, bool includeTree) {
  Comparison comparison{SnapshotIndex::diffSharded(services_.dispatch, a, b, ComparisonMode::snapshotLineage), {}};
  if (includeTree) comparison.combinedEntries = a.combined(b);
  return comparison;
}

Comparison Comparisons::fromHistory(const ComparisonRequest& request) {
  const auto [lower, higher] = std::minmax(request.a.xid, request.b.xid);
  return {diff(readNetChange(services_.dispatch, store_, request.volume.key(), lower, higher)), {}};
}

Comparison Comparisons::treesFromHistory(const ComparisonRequest& request) {
  const auto [lower, higher] = std::minmax(request.a.xid, request.b.xid);
  const ShardedEntries before = store_.reconstruct(request.volume.key(), lower);
  const ShardedEntries after = store_.reconstruct(request.volume.key(), higher);
  if (before.isEmpty() || after.isEmpty()) {
    throw historyError("Snapshot history does not contain both requested states");
  }
  const MemoryReturn::Held held(services_.memory, before.count() + after.count());
  return ofTrees(before, after, true);
}

Comparisons::Answer Comparisons::fallback(const ComparisonRequest& request) {
  const VolumeUuid volume = request.volume.key();
  Answer answer;
  const auto treeOf = [&](const StoredSnapshot& snapshot) -> std::shared_ptr<const ShardedEntries> {
    if (store_.isReady(volume, snapshot.xid)) {
      auto kept = std::make_shared<ShardedEntries>(store_.reconstruct(volume, snapshot.xid));
      if (!kept->isEmpty()) return kept;
    }
    ScannedTree scanned;
    scanned.tree = std::make_shared<ShardedEntries>(scans_.scan({.volume = request.volume,
                                                                 .snapshot = snapshot,
                                                                 .label = "Comparison fallback full index",
                                                                 .ignoreExclusions = false,
                                                                 .lowPriority = false,
                                                                 .lastChange = &scanned.lastChange}));
    answer.scanned[snapshot.xid] = scanned;
    return scanned.tree;
  };
  const auto a = treeOf(request.a);
  MemoryReturn::Held held(services_.memory, a->count());
  const auto b = treeOf(request.b);
  held.holds(a->count() + b->count());
  answer.comparison = std::make_shared<Comparison>(ofTrees(*a, *b, request.includeTree));
  cache_.insert(keyOf(request), answer.comparison);
  progress_.done(volume);
  return answer;
}

Comparison Comparisons::subtree(const VolumeUuid& volume, const std::string& path, Xid a, Xid b) {
  if (a == b) return {};
  const auto [lower, higher] = std::minmax(a, b);
  const bool isWhole = path.empty() || path == "/";
  const std::string below = path + "/";
  const auto isInside = [&](std::string_view candidate) {
    return isWhole || candidate == path || candidate.starts_with(below);
  };
  return {diff(readNetChange(services_.dispatch, store_, volume, lower, higher, isInside)), {}};
}

}  // namespace quillmark
