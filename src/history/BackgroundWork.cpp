#include "history/BackgroundWork.h"

#include "base/HelperLog.h"
#include "snapshots/APFSManager.h"

namespace quillmark {
namespace {

constexpr std::chrono::seconds firstRepair{60};
constexpr std::chrono::seconds repairInterval{300};
constexpr std::chrono::seconds reconcileInterval{3600};
constexpr std::chrono::seconds changesSettle{10};

}  // namespace

BackgroundWork::BackgroundWork(const HistoryServices& services, const HistoryProviders& providers,
                               SnapshotHistoryStore& store, HistoryQueues& queues, HistoryWork& work, IndexRun& runs,
                               IndexMounts& mounts, Reconciliation& reconciliation)
    : services_(services), providers_(providers), store_(store), queues_(queues), work_(work), runs_(runs),
      mounts_(mounts), reconciliation_(reconciliation), waitingRepairs_(services.dispatch),
      waitingReconciles_(services.dispatch) {}

void BackgroundWork::start(Owner owner) {
  queues_.timer->async([this, owner = std::move(owner)] {
    if (const auto alive = owner.lock()) startTimers(owner);
  });
}

void BackgroundWork::startTimers(const Owner& owner) {
  if (repairTimer_ || work_.isStopped()) return;
  restoreCleanupPass();
  if (!store_.needsExistingSnapshotBootstrap()) reconcileAll(owner);
  repairTimer_ = timer(owner, &BackgroundWork::repairTick);
  repairTimer_->fireAfter(firstRepair, repairInterval);
  reconcileTimer_ = timer(owner, &BackgroundWork::reconcileTick);
  reconcileTimer_->fireAfter(reconcileInterval, reconcileInterval);
}

std::unique_ptr<Timer> BackgroundWork::timer(const Owner& owner, void (BackgroundWork::*tick)(const Owner&)) {
  return services_.dispatch.makeTimer(queues_.timer, [this, owner, tick] {
    if (const auto alive = owner.lock()) (this->*tick)(owner);
  });
}

void BackgroundWork::stop(Owner owner) {
  queues_.timer->async([this, owner = std::move(owner)] {
    const auto alive = owner.lock();
    if (!alive) return;
    repairTimer_.reset();
    reconcileTimer_.reset();
  });
}

void BackgroundWork::restoreCleanupPass() {
  if (providers_.restoreCleanupPass) providers_.restoreCleanupPass();
}

void BackgroundWork::repairTick(const Owner& owner) {
  if (work_.isStopped() || !work_.hasPower()) return;
  std::vector<VolumeUuid> volumes;
  try {
    volumes = store_.volumesWithPending();
  } catch (const std::exception& failure) {
    services_.log.error("could not enumerate pending history repairs: " + asError(failure).description());
    return;
  }
  for (const VolumeUuid& volume : volumes) {
    if (!waitingRepairs_.with([&](auto& waiting) { return waiting.insert(volume).second; })) continue;
    queues_.globalIndex->async([this, owner, volume] {
      if (const auto alive = owner.lock()) repair(volume);
    });
  }
}

void BackgroundWork::repair(const VolumeUuid& volume) {
  waitingRepairs_.with([&](auto& waiting) { waiting.erase(volume); });
  if (work_.isStopped()) return;
  try {
    const VolumeInfo resolved = services_.apfs.resolveVolume(volume.text());
    queues_.onVolume(volume, [&] { runs_.runInBackground(resolved, Forced::no); });
  } catch (const std::exception&) {
    // Not mounted now: its rows wait for it.
  }
}

void BackgroundWork::reconcileTick(const Owner& owner) {
  if (work_.isStopped()) return;
  mounts_.sweep();
  restoreCleanupPass();
  reconcileAll(owner);
}

void BackgroundWork::requestReconcile(Owner owner) {
  queues_.timer->async([this, owner = std::move(owner)] {
    const auto alive = owner.lock();
    if (!alive || ownedReconcileScheduled_ || work_.isStopped()) return;
    ownedReconcileScheduled_ = true;
    queues_.timer->asyncAfter(changesSettle, [this, owner] {
      const auto stillAlive = owner.lock();
      if (!stillAlive) return;
      ownedReconcileScheduled_ = false;
      reconcileAll(owner);
    });
  });
}

void BackgroundWork::reconcileAll(const Owner& owner) {
  if (work_.isStopped()) return;
  for (const VolumeInfo& volume : EligibleVolumes::find(services_, work_).volumes) {
    const VolumeUuid key = volume.key();
    if (!waitingReconciles_.with([&](auto& waiting) { return waiting.insert(key).second; })) continue;
    queues_.queue(key)->async([this, owner, volume, key] {
      const auto alive = owner.lock();
      if (!alive) return;
      waitingReconciles_.with([&](auto& waiting) { waiting.erase(key); });
      if (work_.isStopped()) return;
      queues_.onVolume(key, [&] { reconciliation_.reconcileOwned(volume); });
    });
  }
}

}  // namespace quillmark
