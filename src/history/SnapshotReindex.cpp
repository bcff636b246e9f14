#include "history/SnapshotReindex.h"

#include <algorithm>

#include "scheduling/rules/SnapshotNameInfo.h"
#include "snapshots/APFSManager.h"

namespace quillmark {
namespace {

StoredSnapshot pendingFormOf(const SnapshotRecord& record) {
  return {.xid = record.xid, .name = record.name, .createdAt = record.createdAt};
}

}  // namespace

void SnapshotReindex::prepare(const VolumeInfo& volume, Xid xid) {
  const VolumeUuid key = volume.key();
  const SnapshotRecord snapshot = onDisk(volume, xid);
  if (SnapshotNameInfo::isSystemManaged(snapshot.name)) {
    throw historyError("macOS system snapshots can't be mounted for indexing");
  }
  const std::set<Xid> ready = store_.readyXIDs(key);
  if (!ready.contains(xid)) return prepareUnindexed(key, snapshot, ready);
  if (ready.size() == 1) return prepareSole(key, snapshot);
  if (*ready.rbegin() != xid) {
    throw historyError(
        "Only the newest indexed snapshot can be re-indexed in place, because each snapshot's delta links to its "
        "neighbors. Use \"Re-index Snapshots\" on the volume instead.");
  }
  prepareHead(key, snapshot);
}

SnapshotRecord SnapshotReindex::onDisk(const VolumeInfo& volume, Xid xid) {
  const std::vector<SnapshotRecord> all = services_.apfs.listSnapshots(volume);
  const auto found =
      std::find_if(all.begin(), all.end(), [&](const SnapshotRecord& snapshot) { return snapshot.xid == xid; });
  if (found == all.end()) throw historyError("Snapshot no longer exists on this volume");
  return *found;
}

void SnapshotReindex::prepareUnindexed(const VolumeUuid& volume, const SnapshotRecord& snapshot,
                                       const std::set<Xid>& ready) {
  if (!ready.empty() && *ready.rbegin() >= snapshot.xid) {
    throw historyError(
        "This snapshot is older than the newest indexed snapshot, and the index chain only extends forward. Use "
        "\"Re-index Snapshots\" on the volume to rebuild from the oldest snapshot.");
  }
  if (!store_.volumeState(volume)) store_.setVolumeState(volume, HistoryVolumeState::baselinePending);
  store_.registerPending(volume, snapshot.xid, snapshot.name, snapshot.createdAt);
}

void SnapshotReindex::prepareSole(const VolumeUuid& volume, const SnapshotRecord& snapshot) {
  // Those that wait stay in the queue: nobody else would think of them in time.
  store_.requeueSole(volume, pendingFormOf(snapshot));
  reconciliation_.purgeCaches(volume);
}

void SnapshotReindex::prepareHead(const VolumeUuid& volume, const SnapshotRecord& snapshot) {
  if (!store_.requeueHead(volume, pendingFormOf(snapshot))) {
    throw historyError(
        "Newer snapshots are queued for indexing; try again once they finish, or re-index the whole volume.");
  }
  reconciliation_.purgeCaches(volume, {snapshot.xid});
}

}  // namespace quillmark
