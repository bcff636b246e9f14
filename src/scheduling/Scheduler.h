// Scheduler: takes automatic snapshots and removes old ones. Walks the volumes once a minute, measures free space every
// 15, and hears of disks; everything it does to a volume runs on that volume's queue.
//
//   auto scheduler = Scheduler::make(services);
//   scheduler->start();
//
// Ownership: keeps a copy of the services; work it queued holds it weakly.
// Threads:   thread-safe.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/dispatch.h"
#include "scheduling/DiskEventHandler.h"
#include "scheduling/FreeSpaceWatch.h"
#include "scheduling/LifespanSweep.h"
#include "scheduling/LowSpacePass.h"
#include "scheduling/VolumePass.h"

namespace quillmark {

class DiskWatch;

class Scheduler final : public std::enable_shared_from_this<Scheduler> {
 public:
  [[nodiscard]] static std::shared_ptr<Scheduler> make(SchedulerServices services);
  ~Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  // Arms both timers and listens to disks; does nothing where that is done already.
  void start();
  // Work that is queued runs on.
  void stop();

  // Counts the sets of snapshots of a volume: to be bumped when one came or went, and when its policy was saved.
  [[nodiscard]] std::uint64_t currentGeneration(const std::string& volumeUUID);
  void bumpGeneration(const std::string& volumeUUID);

  [[nodiscard]] std::vector<VolumeFreeSpaceState> freeSpaceStates() { return meter_.states(); }

 private:
  enum class Job { volumePass, lifespanSweep, lowSpacePass };
  using JobKey = std::pair<VolumeUuid, Job>;
  struct Timers {
    std::unique_ptr<Timer> tick;
    std::unique_ptr<Timer> freeSpace;
    std::unique_ptr<DiskWatch> disks;
  };

  explicit Scheduler(SchedulerServices services);

  void startTimer();
  void startFreeSpaceTimer();
  void startDiskEvents();
  // Work on the scheduler's queue that does nothing once the scheduler is gone.
  [[nodiscard]] Work weakly(void (Scheduler::*step)());

  void tick();
  void sweepAll(const std::vector<APFSVolume>& volumes);
  void passAll(const std::vector<APFSVolume>& volumes);
  void freeSpaceTick(FreeSpaceTickReason reason);
  void timedFreeSpaceTick() { freeSpaceTick(FreeSpaceTickReason::timer); }
  void eventFreeSpaceTick() { freeSpaceTick(FreeSpaceTickReason::diskEvent); }
  void diskEvent(const DiskEvent& event);
  void queueLowSpacePass(const std::string& uuid);
  [[nodiscard]] bool isRunning();
  // On the volume's queue. One that still waits there is replaced: a volume that doesn't answer gathers no backlog.
  void onVolume(const std::string& volumeUUID, Job job, Work work);
  void runJob(const JobKey& key);
  void log(std::string_view message);

  const SchedulerServices services_;
  const std::shared_ptr<Queue> queue_;
  const DeletionGate gate_;
  const ScheduleAudit audit_;

  // Thread-safe, or with a lock of their own.
  ScheduleEvents events_;
  AttemptRecords attempts_;
  SnapshotGenerations generations_;
  FreeSpaceMeter meter_;
  const SnapshotDeleter deleter_;
  SnapshotTaker taker_;
  RotationPass rotation_;
  VolumePass volumePass_;
  LifespanSweep lifespanSweep_;
  LowSpacePass lowSpacePass_;
  DiskEventHandler diskEvents_;
  Guarded<Timers> timers_;
  Guarded<std::map<JobKey, Work>> waitingJobs_;

  // Confined to queue_.
  FreeSpaceWatch freeSpaceWatch_;
  std::uint64_t tickCounter_ = 0;
};

}  // namespace quillmark
