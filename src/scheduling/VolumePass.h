// VolumePass: what a volume gets each minute: the snapshots that are due, then the rotation, unless nothing changed since
// the last one that succeeded.
// Threads: confined to the volume's queue.
#pragma once

#include "scheduling/RotationPass.h"
#include "scheduling/SnapshotGenerations.h"
#include "scheduling/SnapshotInventory.h"
#include "scheduling/SnapshotTaker.h"

namespace quillmark {

class VolumePass final {
 public:
  VolumePass(const SchedulerServices& services, AttemptRecords& attempts, SnapshotGenerations& generations,
             SnapshotTaker& taker, RotationPass& rotation)
      : services_(services), attempts_(attempts), generations_(generations), taker_(taker), rotation_(rotation) {}

  void run(const VolumeInfo& volume, const SchedulePolicy& policy, Date now);

 private:
  void takeWhatIsDue(const VolumeInfo& volume, const SchedulePolicy& policy,
                     const std::vector<ParsedSnapshot>& inventory, Date now);
  [[nodiscard]] std::optional<Date> dueOccurrence(const VolumeUuid& volume, SnapshotCadence cadence,
                                                  const std::vector<ParsedSnapshot>& inventory, Date now);

  const SchedulerServices& services_;
  AttemptRecords& attempts_;
  SnapshotGenerations& generations_;
  SnapshotTaker& taker_;
  RotationPass& rotation_;
};

}  // namespace quillmark
