// LifespanSweep: removes what has outlived its nature on one volume.
// Threads: confined to the volume's queue.
#pragma once

#include "scheduling/DiscoveryNotice.h"
#include "scheduling/SnapshotDeleter.h"

namespace quillmark {

class LifespanSweep final {
 public:
  // Of one sweep. The last snapshot of a volume is never taken.
  static constexpr int mostDeletions = 8;
  static constexpr std::size_t leastRemaining = 2;

  LifespanSweep(const SchedulerServices& services, const SnapshotDeleter& deleter, ScheduleEvents& events)
      : services_(services), deleter_(deleter), events_(events), discovery_(services, events) {}

  void run(const VolumeInfo& volume);

 private:
  // How many were deleted that aren't safety snapshots.
  std::size_t remove(const VolumeInfo& volume, const std::vector<PruneRules::Snap>& expired, std::size_t remaining,
                     std::int64_t safetyHours);
  void report(const VolumeInfo& volume, std::size_t automatic);

  const SchedulerServices& services_;
  const SnapshotDeleter& deleter_;
  ScheduleEvents& events_;
  DiscoveryNotice discovery_;
};

}  // namespace quillmark
