// BackgroundWork: what the history does of itself: tries again what stayed pending, and looks hourly, or soon after a
// change, whether snapshots came or went.
// Ownership: borrows what it is made over; work that waits holds the owner of all this weakly.
// Threads:   thread-safe.
#pragma once

#include <memory>
#include <set>

#include "history/EligibleVolumes.h"
#include "history/HistoryQueues.h"
#include "history/Reconciliation.h"

namespace quillmark {

class BackgroundWork final {
 public:
  BackgroundWork(const HistoryServices& services, const HistoryProviders& providers, SnapshotHistoryStore& store,
                 HistoryQueues& queues, HistoryWork& work, IndexRun& runs, IndexMounts& mounts,
                 Reconciliation& reconciliation);

  // Each once; does nothing where it is done already. The owner is who holds all this.
  void start(std::weak_ptr<const void> owner);
  // Returns at once, whatever the timers' queue is at.
  void stop(std::weak_ptr<const void> owner);
  // A pass over all volumes soon; a burst of requests costs one.
  void requestReconcile(std::weak_ptr<const void> owner);

 private:
  using Owner = std::weak_ptr<const void>;
  void startTimers(const Owner& owner);
  [[nodiscard]] std::unique_ptr<Timer> timer(const Owner& owner, void (BackgroundWork::*tick)(const Owner&));
  void repairTick(const Owner& owner);
  void repair(const VolumeUuid& volume);
  void reconcileTick(const Owner& owner);
  void reconcileAll(const Owner& owner);
  void restoreCleanupPass();

  const HistoryServices& services_;
  const HistoryProviders& providers_;
  SnapshotHistoryStore& store_;
  HistoryQueues& queues_;
  HistoryWork& work_;
  IndexRun& runs_;
  IndexMounts& mounts_;
  Reconciliation& reconciliation_;

  // Work of a volume that still waits: a volume that is long at it gathers no backlog.
  Guarded<std::set<VolumeUuid>> waitingRepairs_;
  Guarded<std::set<VolumeUuid>> waitingReconciles_;

  // Confined to the timer queue.
  std::unique_ptr<Timer> repairTimer_;
  std::unique_ptr<Timer> reconcileTimer_;
  bool ownedReconcileScheduled_ = false;
};

}  // namespace quillmark
