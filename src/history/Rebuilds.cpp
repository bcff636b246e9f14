#include "history/Rebuilds.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/HelperLog.h"
#include "scheduling/rules/SnapshotNameInfo.h"
#include "snapshots/APFSManager.h"

namespace quillmark {

void Rebuilds::start(std::vector<VolumeInfo> volumes, bool includeExternal, Completion completion,
                     std::weak_ptr<const void> owner) {
  const Generation generation = generation_.with([](Generation& newest) { return ++newest; });
  queues_.rebuild->async([this, owner = std::move(owner), volumes = std::move(volumes),
                          pass = Pass{generation, includeExternal}, completion = std::move(completion)] {
    if (const auto alive = owner.lock()) run(volumes, pass, completion);
  });
}

bool Rebuilds::isNewest(Generation generation) {
  return generation_.with([&](Generation newest) { return newest == generation; });
}

void Rebuilds::run(const std::vector<VolumeInfo>& volumes, Pass pass, const Completion& completion) {
  for (const VolumeInfo& volume : volumes) {
    if (work_.isStopped()) return completion(false);
    if (!isNewest(pass.generation)) {
      services_.log.info(fmt::format("rebuild superseded before {}; newer rebuild covers it", volume.name));
      return completion(false);
    }
    const bool hadHistory = hasHistory(volume.key());
    queues_.onVolume(volume.key(), [&] { rebuild(volume, hadHistory, pass); });
    if (!isNewest(pass.generation)) return completion(false);
  }
  completion(pass.isComplete);
}

bool Rebuilds::hasHistory(const VolumeUuid& volume) {
  try {
    return !store_.readyXIDs(volume).empty() || !store_.pendingSnapshots(volume).empty();
  } catch (const Error&) {
    return true;  // not known: then its failure counts
  }
}

void Rebuilds::rebuild(const VolumeInfo& volume, bool hadHistory, Pass& pass) {
  if (!isNewest(pass.generation)) return;
  const VolumeUuid key = volume.key();
  try {
    startOver(volume, pass.includeExternal);
    if (const auto pending = store_.pendingSnapshots(key); !pending.empty()) {
      progress_.begin(key, pending.front().xid, "queued");
    }
    runs_.indexPending(volume, Forced::yes);
    runs_.forgetFailure(key);
  } catch (const std::exception& exception) {
    note(volume, hadHistory, asError(exception), pass);
  }
}

void Rebuilds::startOver(const VolumeInfo& volume, bool includeExternal) {
  // First: what is thrown away without it would not come back of itself.
  std::vector<SnapshotRecord> onDisk = services_.apfs.listSnapshots(volume);
  store_.dropVolume(volume.key());
  reconciliation_.purgeCaches(volume.key());
  registerEligible(volume, std::move(onDisk), includeExternal);
}

void Rebuilds::registerEligible(const VolumeInfo& volume, std::vector<SnapshotRecord> onDisk, bool includeExternal) {
  const VolumeUuid key = volume.key();
  if (!store_.volumeState(key)) store_.setVolumeState(key, HistoryVolumeState::baselinePending);
  std::erase_if(onDisk, [&](const SnapshotRecord& snapshot) {
    return includeExternal ? SnapshotNameInfo::isSystemManaged(snapshot.name)
                           : !SnapshotNameInfo::isOwned(snapshot.name);
  });
  std::sort(onDisk.begin(), onDisk.end(), [](const auto& a, const auto& b) { return a.xid < b.xid; });
  for (const SnapshotRecord& snapshot : onDisk) {
    store_.registerPending(key, snapshot.xid, snapshot.name, snapshot.createdAt);
  }
  services_.log.info(fmt::format("re-index: registered {} snapshot(s) on {} for rebuild", onDisk.size(), volume.name));
}

void Rebuilds::note(const VolumeInfo& volume, bool hadHistory, const Error& failure, Pass& pass) {
  progress_.done(volume.key());
  if (!runs_.mayBePending(volume.key()) && !hadHistory) {
    services_.log.info(fmt::format("rebuild skipped {}; no history here and it is not readable right now: {}",
                                   volume.name, failure.description()));
    return;
  }
  pass.isComplete = false;
  if (!runs_.isPassing(volume, failure)) runs_.recordFailure(volume, failure);
  services_.log.error("snapshot (re)index failed: " + failure.description());
}

}  // namespace quillmark
