// Comparisons: tells what changed between two snapshots. From the history where both are in it; else snapshots are
// indexed on demand, or read whole for this once.
// Ownership: borrows what it is made over.
// Threads:   compare() on the volume's queue, in the epoch. subtree() and local() from any thread.
// Errors:    throws Error of the road that was taken; nothing is kept of a comparison that failed.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "history/ComparisonCache.h"
#include "history/IndexRun.h"

namespace quillmark {

// A tree that was read for a comparison, and the snapshot's last change before that (SnapshotCalls.h).
struct ScannedTree {
  std::shared_ptr<const SnapshotIndex::ShardedEntries> tree;
  std::uint64_t lastChange = 0;
};
using ScannedTrees = std::map<Xid, ScannedTree>;

struct ComparisonRequest {
  const VolumeInfo& volume;
  const StoredSnapshot& a;  // as asked for; the state doesn't count
  const StoredSnapshot& b;
  bool includeTree = false;
  bool fullScan = false;  // reads both whole, without exclusions
};

class Comparisons final {
 public:
  struct Answer {
    std::shared_ptr<const Comparison> comparison;
    ScannedTrees scanned;  // offer these to the history
  };

  Comparisons(const HistoryServices& services, SnapshotHistoryStore& store, HistoryWork& work, SnapshotScans& scans,
              IndexRun& runs, IndexProgress& progress, ComparisonCache& cache);

  // The history's answers go from the lower XID to the higher one whatever the order of asking; scans from a to b.
  [[nodiscard]] Answer compare(const ComparisonRequest& request);
  // From the history alone: of snapshots that aren't in it nothing is told. An empty path is the root.
  [[nodiscard]] Comparison subtree(const VolumeUuid& volume, const std::string& path, Xid a, Xid b);

 private:
  [[nodiscard]] Answer fullScan(const ComparisonRequest& request);
  [[nodiscard]] Comparison fromHistory(const ComparisonRequest& request);
  [[nodiscard]] Comparison treesFromHistory(const ComparisonRequest& request);
  [[nodiscard]] Answer fallback(const ComparisonRequest& request);
  [[nodiscard]] Comparison ofTrees(const SnapshotIndex::ShardedEntries& a, const SnapshotIndex::ShardedEntries& b,
                                   bool includeTree);
  [[nodiscard]] bool bothReady(const ComparisonRequest& request);
  // What fails is told in the log, and the snapshots are read instead.
  void indexPending(const VolumeInfo& volume);

  const HistoryServices& services_;
  SnapshotHistoryStore& store_;
  HistoryWork& work_;
  SnapshotScans& scans_;
  IndexRun& runs_;
  IndexProgress& progress_;
  ComparisonCache& cache_;
};

}  // namespace quillmark
