#include "history/ScanAdoption.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/HelperLog.h"
#include "history/IndexAudit.h"
#include "history/MemoryReturn.h"
#include "scheduling/rules/SnapshotNameInfo.h"
#include "snapshots/APFSManager.h"

namespace quillmark {

void ScanAdoption::keep(const VolumeInfo& volume, Offer offer) {
  tryAdopting([&] {
    const VolumeUuid key = volume.key();
    if (!store_.volumeState(key)) store_.setVolumeState(key, HistoryVolumeState::baselinePending);
    if (!canJoin(key, offer.scanned)) return;
    kept_.with([&](auto& kept) { kept.try_emplace(key, std::move(offer)); });
  });
}

bool ScanAdoption::canJoin(const VolumeUuid& volume, const ScannedTrees& scanned) {
  if (!work_.isEnabled()) return false;
  const auto row = store_.volumeState(volume);
  return !row || row->head < scanned.rbegin()->first;
}

void ScanAdoption::tryAdopting(FunctionRef<void()> work) {
  try {
    work();
  } catch (const std::exception& failure) {
    services_.log.error("could not adopt comparison scans into history: " + asError(failure).description());
  }
}

void ScanAdoption::offer(const VolumeInfo& volume) {
  adoptKept(volume);
  if (work_.isStopped()) return;
  try {
    runs_.run(volume, Forced::no);
  } catch (const std::exception& exception) {
    const Error failure = asError(exception);
    if (HistoryWork::isCancellation(failure)) return;
    services_.log.error("in-order indexing after a deferred adoption failed: " + failure.description());
  }
}

void ScanAdoption::adoptKept(const VolumeInfo& volume) {
  const auto kept = kept_.with([&](auto& all) { return all.extract(volume.key()); });
  if (!kept || work_.isStopped()) return;
  std::uint64_t entries = 0;
  for (const auto& [xid, scan] : kept.mapped().scanned) entries += scan.tree->count();
  const MemoryReturn::Held held(services_.memory, entries);
  tryAdopting([&] { adopt(volume, kept.mapped()); });
}

void ScanAdoption::adopt(const VolumeInfo& volume, const Offer& offer) {
  const Xid a = offer.a, b = offer.b;
  const ScannedTrees& scanned = offer.scanned;
  if (scanned.empty()) return;
  for (const auto& [xid, scan] : scanned) {
    if (scan.tree->isEmpty()) return;
  }
  const VolumeUuid key = volume.key();
  const Xid upper = std::max(a, b);
  const std::vector<StoredSnapshot> pending = store_.pendingSnapshots(key);
  const bool othersFirst = std::any_of(pending.begin(), pending.end(), [&](const StoredSnapshot& row) {
    return row.xid <= upper && row.xid != a && row.xid != b;
  });
  if (othersFirst && work_.isEnabled()) return;

  const Snapshots onDisk = services_.apfs.listSnapshots(volume);
  if (!store_.volumeState(key)) store_.setVolumeState(key, HistoryVolumeState::baselinePending);
  if (!work_.isEnabled()) return;
  if (registeredBetween(volume, a, b, scanned, onDisk)) return;

  std::set<Xid> offered;
  for (const auto& [xid, scan] : scanned) {  // ascending
    offered.insert(xid);
    const auto snapshot = std::find_if(
        onDisk.begin(), onDisk.end(), [&, wanted = xid](const SnapshotRecord& record) { return record.xid == wanted; });
    if (snapshot != onDisk.end()) save(volume, *snapshot, scan);
  }
  const auto row = store_.volumeState(key);
  if (row && row->head) store_.dropPending(key, *row->head, offered);
}

bool ScanAdoption::registeredBetween(const VolumeInfo& volume, Xid a, Xid b, const ScannedTrees& scanned,
                                     const Snapshots& onDisk) {
  const VolumeUuid key = volume.key();
  const auto row = store_.volumeState(key);
  if (!row || !row->head) return false;
  const Xid head = *row->head;
  for (const auto& [xid, scan] : scanned) {
    Snapshots between;
    std::copy_if(onDisk.begin(), onDisk.end(), std::back_inserter(between),
                 [&, high = xid](const SnapshotRecord& record) {
                   return !SnapshotNameInfo::isSystemManaged(record.name) && record.xid > head && record.xid < high &&
                          record.xid != a && record.xid != b;
                 });
    if (between.empty()) continue;
    services_.log.info(fmt::format(
        "history: not adopting the comparison scan of xid={} on {} ({} snapshot(s) sit between it and the current head "
        "(xid={}); queued {} for in-order indexing so the chain stays contiguous",
        xid.value, volume.name, between.size(), head.value, between.size()));
    for (const SnapshotRecord& record : between) {
      store_.registerPending(key, record.xid, record.name, record.createdAt);
    }
    return true;
  }
  return false;
}

void ScanAdoption::save(const VolumeInfo& volume, const SnapshotRecord& record, const ScannedTree& scan) {
  const VolumeUuid key = volume.key();
  const MonotonicTime began = services_.dispatch.clock().monotonic();
  const auto head = [&]() -> std::optional<Xid> {
    const auto row = store_.volumeState(key);
    return row ? row->head : std::nullopt;
  };
  if (store_.isReady(key, record.xid) || head() >= record.xid) return;
  store_.registerPending(key, record.xid, record.name, record.createdAt);
  store_.noteChange(key, record.xid, scan.lastChange);
  const StoredSnapshot snapshot{record.xid, record.name, record.createdAt, "pending"};
  std::string detail;
  if (!head()) {
    store_.commitBaseline(key, snapshot, *scan.tree);
    detail = fmt::format("Comparison scan saved as baseline index · {} files", scan.tree->count());
  } else {
    const auto current = head();
    if (!current) throw historyError("History head disappeared while saving comparison scan");
    const HistoryDelta delta = store_.computeDelta(key, *scan.tree);
    store_.commitDelta(key, *current, snapshot, delta);
    detail = fmt::format("Comparison scan saved as index · {} changed paths", delta.size());
  }
  services_.log.info(fmt::format("history: adopted comparison scan of xid={}", record.xid.value));
  auditIndexing(services_, volume, record.name, began, std::move(detail), nullptr);
  store_.emptyLog();
}

}  // namespace quillmark
