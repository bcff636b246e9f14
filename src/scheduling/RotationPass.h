// RotationPass: removes what has fallen out of the count of its cadence. Silent but for the audit trail.
// Threads: confined to the volume's queue.
#pragma once

#include <cstdint>

#include "scheduling/ScheduleEvents.h"
#include "scheduling/SnapshotDeleter.h"
#include "scheduling/rules/PruneRules.h"
#include "scheduling/rules/SchedulePolicy.h"

namespace quillmark {

class RotationPass final {
 public:
  struct Outcome {
    bool succeeded = false;  // nothing is left to do until the volume changes
    std::uint64_t deleted = 0;
  };

  RotationPass(const SchedulerServices& services, const DeletionGate& gate, const SnapshotDeleter& deleter,
               ScheduleEvents& events)
      : services_(services), gate_(gate), deleter_(deleter), events_(events) {}

  Outcome run(const VolumeInfo& volume, const SchedulePolicy& policy);

 private:
  Outcome remove(const VolumeInfo& volume, const std::vector<PruneRules::Snap>& candidates, std::size_t count);
  void checkSoftCeiling(const VolumeInfo& volume, std::size_t count);

  const SchedulerServices& services_;
  const DeletionGate& gate_;
  const SnapshotDeleter& deleter_;
  ScheduleEvents& events_;
};

}  // namespace quillmark
