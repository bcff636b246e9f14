#include "history/Reconciliation.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/HelperLog.h"
#include "history/HistoryCaches.h"
#include "scheduling/rules/SnapshotNameInfo.h"
#include "snapshots/APFSManager.h"

namespace quillmark {
namespace {

constexpr std::size_t linesOfGone = 10;

template <class Keep>
std::vector<SnapshotRecord> byXid(const std::vector<SnapshotRecord>& snapshots, Keep keep) {
  std::vector<SnapshotRecord> kept;
  std::copy_if(snapshots.begin(), snapshots.end(), std::back_inserter(kept), keep);
  std::sort(kept.begin(), kept.end(), [](const auto& a, const auto& b) { return a.xid < b.xid; });
  return kept;
}

std::vector<Xid> xidsOf(const std::vector<StoredSnapshot>& snapshots) {
  std::vector<Xid> xids;
  for (const StoredSnapshot& snapshot : snapshots) xids.push_back(snapshot.xid);
  return xids;
}

bool isOwned(const SnapshotRecord& snapshot) { return SnapshotNameInfo::isOwned(snapshot.name); }
bool isSystems(const SnapshotRecord& snapshot) { return SnapshotNameInfo::isSystemManaged(snapshot.name); }

}  // namespace

void Reconciliation::catchUpExternal(const VolumeInfo& volume) {
  try {
    catchUp(volume);
  } catch (const std::exception& failure) {
    services_.log.warn(fmt::format("history catch-up skipped on {}: {}", volume.name, asError(failure).description()));
  }
}

void Reconciliation::catchUp(const VolumeInfo& volume) {
  const VolumeUuid key = volume.key();
  const auto hasChain = [&] {
    const auto row = store_.volumeState(key);
    return row && row->baseline && row->head;
  };
  if (!hasChain()) return;
  const Snapshots onDisk = services_.apfs.listSnapshots(volume);
  dropGone(volume, onDisk);
  static_cast<void>(requeueChanged(volume));
  if (!hasChain()) return;
  const Xid head = *store_.volumeState(key)->head;
  const std::set<Xid> known = recorded(key);
  const Snapshots candidates = byXid(onDisk, [&](const SnapshotRecord& snapshot) {
    return !isOwned(snapshot) && !isSystems(snapshot) && snapshot.xid > head && !known.contains(snapshot.xid);
  });
  if (candidates.empty()) return;
  services_.log.info(
      fmt::format("history catch-up: queueing {} external snapshot(s) on {} created since the last index",
                  candidates.size(), volume.name));
  for (const SnapshotRecord& snapshot : candidates) registerPending(key, snapshot);
}

void Reconciliation::reconcileOwned(const VolumeInfo& volume) {
  try {
    reconcile(volume);
  } catch (const std::exception& failure) {
    const Error error = asError(failure);
    if (HistoryWork::isCancellation(error)) return;
    services_.log.error(fmt::format("history reconcile failed for {}: {}", volume.name, error.description()));
  }
}

void Reconciliation::reconcile(const VolumeInfo& volume) {
  const VolumeUuid key = volume.key();
  const Snapshots onDisk = services_.apfs.listSnapshots(volume);
  dropGone(volume, onDisk);
  // What a full disk kept from being merged; without a new snapshot nobody else would try it again.
  store_.compactDeferred(key);
  const bool isRequeued = requeueChanged(volume);
  // A comparison's scan may have failed; nobody would try it again.
  if (store_.pendingSnapshots(key).empty()) runs_.forgetFailure(key);
  const std::set<Xid> known = recorded(key);
  Snapshots unrecorded =
      byXid(onDisk, [&](const SnapshotRecord& snapshot) { return isOwned(snapshot) && !known.contains(snapshot.xid); });
  if (unrecorded.empty() && !isRequeued) return;
  if (const auto row = store_.volumeState(key); row && row->head) reportStranded(volume, *row->head, unrecorded);
  if (!unrecorded.empty()) {
    services_.log.info(
        fmt::format("history reconcile: registering {} unrecorded snapshot(s) on {}", unrecorded.size(), volume.name));
    for (const SnapshotRecord& snapshot : unrecorded) {
      store_.recordPending(key, snapshot.xid, snapshot.name, snapshot.createdAt);
    }
  }
  runs_.run(volume, Forced::no);
}

void Reconciliation::dropGone(const VolumeInfo& volume, const Snapshots& onDisk) {
  std::set<Xid> there;
  for (const SnapshotRecord& snapshot : onDisk) there.insert(snapshot.xid);
  std::vector<StoredSnapshot> gone = store_.readySnapshots(volume.key());
  std::erase_if(gone, [&](const StoredSnapshot& snapshot) { return there.contains(snapshot.xid); });
  if (gone.empty()) return;
  services_.log.info(
      fmt::format("history reconcile: {} indexed snapshot(s) no longer exist on volume {}; dropping their indexes",
                  gone.size(), volume.name));
  for (std::size_t i = 0; i < std::min(gone.size(), linesOfGone); ++i) {
    services_.log.info(fmt::format("history reconcile:   {} xid={}", gone[i].name, gone[i].xid.value));
  }
  if (gone.size() > linesOfGone) {
    services_.log.info(fmt::format("history reconcile:   … and {} more", gone.size() - linesOfGone));
  }
  const std::vector<Xid> xids = xidsOf(gone);
  store_.deleteSnapshots(volume.key(), xids);
  purgeCaches(volume.key(), xids);
}

bool Reconciliation::requeueChanged(const VolumeInfo& volume) {
  const std::map<Xid, std::uint64_t> changed = services_.apfs.changedSnapshots(volume);
  if (changed.empty()) return false;
  const std::map<Xid, std::uint64_t> noted = store_.notedChanges(volume.key());
  std::vector<StoredSnapshot> stale = store_.readySnapshots(volume.key());
  std::erase_if(stale, [&](const StoredSnapshot& snapshot) {
    const auto now = changed.find(snapshot.xid), then = noted.find(snapshot.xid);
    return now == changed.end() || (then != noted.end() && now->second <= then->second);
  });
  if (stale.empty()) return false;
  for (const StoredSnapshot& snapshot : stale) {
    services_.log.warn(
        fmt::format("history reconcile: {} xid={} on {} was changed after it was indexed; its index goes",
                    snapshot.name, snapshot.xid.value, volume.name));
  }
  const bool isRequeued = store_.requeueEnd(volume.key(), stale);
  purgeCaches(volume.key(), xidsOf(stale));
  return isRequeued;
}

std::set<Xid> Reconciliation::recorded(const VolumeUuid& volume) {
  std::set<Xid> xids = store_.readyXIDs(volume);
  for (const StoredSnapshot& snapshot : store_.pendingSnapshots(volume)) xids.insert(snapshot.xid);
  return xids;
}

void Reconciliation::reportStranded(const VolumeInfo& volume, Xid head, Snapshots& unrecorded) {
  std::erase_if(unrecorded, [&](const SnapshotRecord& snapshot) {
    if (snapshot.xid > head) return false;
    const bool isNew = strandedReported_.with([&](auto& reported) {
      return reported.insert(fmt::format("{}:{}", volume.key().text(), snapshot.xid.value)).second;
    });
    if (isNew) {
      services_.log.warn(fmt::format(
          "history reconcile: {} xid={} on {} is below the index head ({}) and cannot join the chain; it stays "
          "unindexed until the volume is re-indexed",
          snapshot.name, snapshot.xid.value, volume.name, head.value));
    }
    return true;
  });
}

void Reconciliation::registerPending(const VolumeUuid& volume, const SnapshotRecord& snapshot) {
  store_.registerPending(volume, snapshot.xid, snapshot.name, snapshot.createdAt);
}

void Reconciliation::purgeCaches(const VolumeUuid& volume) const {
  if (services_.caches) services_.caches->purge(volume);
}

void Reconciliation::purgeCaches(const VolumeUuid& volume, const std::vector<Xid>& xids) const {
  if (services_.caches) services_.caches->purge(volume, std::set<Xid>(xids.begin(), xids.end()));
}

}  // namespace quillmark
