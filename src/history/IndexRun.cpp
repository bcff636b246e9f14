#include "history/IndexRun.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/HelperLog.h"
#include "history/MemoryReturn.h"
#include "snapshots/APFSManager.h"
#include "wire/QuillmarkError.h"

namespace quillmark {

using enum HistoryVolumeState;

void IndexRun::run(const VolumeInfo& volume, Forced forced) {
  try {
    indexPending(volume, forced);
    if (store_.pendingSnapshots(volume.key()).empty()) failures_.forget(volume.key());
  } catch (const std::exception& exception) {
    const Error failure = asError(exception);
    progress_.done(volume.key());
    if (isPassing(volume, failure)) {
      services_.log.info(fmt::format("history: indexing of {} stopped, its snapshots stay queued: {}", volume.name,
                                     failure.description()));
    } else if (mayBePending(volume.key())) {
      recordFailure(volume, failure);
    }
    throw;
  }
}

void IndexRun::runInBackground(const VolumeInfo& volume, Forced forced) {
  try {
    run(volume, forced);
  } catch (const std::exception& exception) {
    const Error failure = asError(exception);
    if (HistoryWork::isCancellation(failure)) return;
    services_.log.error("snapshot history processing failed: " + failure.description());
  }
}

// Once all is indexed there is nothing left to repair: what failed after that is done by the next run.
bool IndexRun::mayBePending(const VolumeUuid& volume) {
  try {
    return !store_.pendingSnapshots(volume).empty();
  } catch (const Error&) {
    return true;
  }
}

bool IndexRun::isPassing(const VolumeInfo& volume, const Error& failure) {
  using enum QuillmarkErrorCode;
  if (HistoryWork::isCancellation(failure) || HistoryWork::isClaim(failure) ||
      QuillmarkError::codeOf(failure) == snapshotInUse)
    return true;
  try {
    (void)services_.apfs.resolveVolume(volume.uuid);
    return false;
  } catch (const Error& error) {
    return QuillmarkError::codeOf(error) == volumeNotFound;
  }
}

void IndexRun::recordFailure(const VolumeInfo& volume, const Error& failure) {
  std::optional<StoredSnapshot> lowest;
  try {
    const auto pending = store_.pendingSnapshots(volume.key());
    if (!pending.empty()) lowest = pending.front();
  } catch (const Error&) {
    // The store's own failure is likely the one to be told.
  }
  failures_.record(volume, lowest, failure);
}

void IndexRun::indexPending(const VolumeInfo& volume, Forced forced) {
  std::set<Xid> gone;
  while (true) {
    try {
      return indexOnce(volume, forced);
    } catch (const Error& failure) {
      // Whoever wanted the snapshot deletes it or mounts it; either way what is left goes on.
      const bool goesOn = HistoryWork::isClaim(failure) ? mayResume(volume) : isOfGone(volume, failure, gone);
      if (!goesOn) throw;
    }
  }
}

bool IndexRun::isOfGone(const VolumeInfo& volume, const Error& failure, std::set<Xid>& known) {
  if (work_.isStopped() || HistoryWork::isCancellation(failure)) return false;
  try {
    const std::set<Xid> onDisk = xidsOnDisk(volume);
    bool isNews = false;
    for (const StoredSnapshot& snapshot : store_.pendingSnapshots(volume.key())) {
      if (!onDisk.contains(snapshot.xid) && known.insert(snapshot.xid).second) isNews = true;
    }
    return isNews;
  } catch (const Error&) {
    return false;
  }
}

bool IndexRun::mayResume(const VolumeInfo& volume) {
  constexpr std::chrono::seconds look{1};
  for (const StoredSnapshot& snapshot : store_.pendingSnapshots(volume.key())) {
    while (!scans_.claims().waitUntilReleased({volume.key(), snapshot.name}, look)) {
      if (work_.isStopped()) return false;
    }
  }
  return !work_.isStopped();
}

void IndexRun::indexOnce(const VolumeInfo& volume, Forced forced) {
  const VolumeUuid key = volume.key();
  if (forced == Forced::no && !work_.isEnabled()) return;
  if (store_.pendingSnapshots(key).empty()) return;
  std::vector<StoredSnapshot> pending = pendingOnDisk(volume);
  if (pending.empty()) return finish(key);
  if (!volumeRow(key).head) {
    if (!mayGoOn(forced)) {
      store_.setVolumeState(key, baselinePending);
      return finish(key);
    }
    const StoredSnapshot first = std::move(pending.front());
    pending.erase(pending.begin());
    buildBaseline({volume, first, forced == Forced::no});
  }
  if (!extend(volume, pending, forced)) {
    store_.setVolumeState(key, repairQueued);
    return finish(key);
  }
  const auto row = store_.volumeState(key);
  if (row && row->state == rebuilding && row->baseline && row->head) store_.setVolumeState(key, healthy);
  finish(key);
}

std::vector<StoredSnapshot> IndexRun::pendingOnDisk(const VolumeInfo& volume) {
  // Before the listing: what is registered from here on need not be in it.
  const std::vector<StoredSnapshot> pending = store_.pendingSnapshots(volume.key());
  const std::set<Xid> onDisk = xidsOnDisk(volume);
  std::vector<Xid> gone;
  for (const StoredSnapshot& snapshot : pending) {
    if (onDisk.contains(snapshot.xid)) continue;
    services_.log.info(fmt::format("history: snapshot {} xid={} no longer exists on volume {}; forgetting it",
                                   snapshot.name, snapshot.xid.value, volume.name));
    gone.push_back(snapshot.xid);
  }
  if (!gone.empty()) store_.deleteSnapshots(volume.key(), gone);
  return store_.pendingSnapshots(volume.key());
}

std::set<Xid> IndexRun::xidsOnDisk(const VolumeInfo& volume) {
  std::set<Xid> xids;
  for (const SnapshotRecord& record : services_.apfs.listSnapshots(volume)) xids.insert(record.xid);
  return xids;
}

HistoryVolume IndexRun::volumeRow(const VolumeUuid& volume) {
  if (const auto row = store_.volumeState(volume)) return *row;
  store_.setVolumeState(volume, baselinePending);
  return store_.volumeState(volume).value_or(HistoryVolume());
}

std::int64_t IndexRun::millisecondsSince(MonotonicTime began) const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(services_.dispatch.clock().monotonic() - began).count();
}

void IndexRun::buildBaseline(const IndexJob& job) {
  const VolumeUuid volume = job.volume.key();
  const MonotonicTime began = services_.dispatch.clock().monotonic();
  store_.setVolumeState(volume, rebuilding);
  progress_.begin(volume, job.snapshot.xid);
  std::uint64_t lastChange = 0;
  const SnapshotIndex::ShardedEntries tree = scans_.scan({.volume = job.volume,
                                                          .snapshot = job.snapshot,
                                                          .label = "Initial baseline index",
                                                          .lowPriority = job.lowPriority,
                                                          .yields = true,
                                                          .lastChange = &lastChange});
  const MemoryReturn::Held held(services_.memory, tree.count());
  store_.noteChange(volume, job.snapshot.xid, lastChange);
  store_.commitBaseline(volume, job.snapshot, tree);
  progress_.remove(volume);
  services_.log.info(fmt::format("history: BASELINE built xid={} entries={} in {}ms", job.snapshot.xid.value,
                                 tree.count(), millisecondsSince(began)));
}

bool IndexRun::extend(const VolumeInfo& volume, const std::vector<StoredSnapshot>& pending, Forced forced) {
  for (const StoredSnapshot& snapshot : pending) {
    const auto row = store_.volumeState(volume.key());
    if (!row || !row->head) throw historyError("History head disappeared before indexing " + snapshot.name);
    if (snapshot.xid <= *row->head) {
      dropBelowHead(volume, snapshot, *row->head);
    } else if (mayGoOn(forced)) {
      addDelta({volume, snapshot, forced == Forced::no}, *row->head);
    } else {
      return false;
    }
  }
  return true;
}

void IndexRun::dropBelowHead(const VolumeInfo& volume, const StoredSnapshot& snapshot, Xid head) {
  services_.log.info(fmt::format(
      "history: dropping pending snapshot xid={} — the index head has already advanced to {}, and the chain "
      "only extends forward. It stays unindexed; re-index the volume to include it.",
      snapshot.xid.value, head.value));
  store_.dropPending(volume.key(), head, {});
}

void IndexRun::addDelta(const IndexJob& job, Xid head) {
  const VolumeUuid volume = job.volume.key();
  const MonotonicTime began = services_.dispatch.clock().monotonic();
  progress_.begin(volume, job.snapshot.xid);
  store_.setVolumeState(volume, rebuilding);
  const HeadChanges::Found found = changes_.since(head, job);
  const MemoryReturn::Held held(services_.memory, found.entries + found.delta.size());
  store_.noteChange(volume, job.snapshot.xid, found.lastChange);
  store_.commitDelta(volume, head, job.snapshot, found.delta);
  progress_.remove(volume);
  services_.log.info(fmt::format("history: FULL-SCAN delta xid={} entries={} changed={} in {}ms",
                                 job.snapshot.xid.value, found.entries, found.delta.size(), millisecondsSince(began)));
}

void IndexRun::finish(const VolumeUuid& volume) {
  progress_.done(volume);
  store_.emptyLog();
  store_.compactHistory(volume);
}

}  // namespace quillmark
