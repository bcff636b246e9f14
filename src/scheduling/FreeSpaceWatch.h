// FreeSpaceWatch: measures all volumes, tells clients, warns early, and sends the low-space pass where it may run.
// Threads: confined to the scheduler's queue.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "scheduling/EarlyWarning.h"
#include "scheduling/FreeSpaceMeter.h"

namespace quillmark {

class FreeSpaceWatch final {
 public:
  // Puts the low-space pass of a volume on the volume's queue.
  using QueuePass = std::function<void(const std::string& volumeUUID)>;

  FreeSpaceWatch(const SchedulerServices& services, const DeletionGate& gate, FreeSpaceMeter& meter)
      : services_(services), gate_(gate), meter_(meter), warning_(services) {}

  void tick(FreeSpaceTickReason reason, const QueuePass& queuePass);

 private:
  // Where low-space pruning may run.
  [[nodiscard]] std::set<VolumeUuid> eligibleVolumes() const;

  const SchedulerServices& services_;
  const DeletionGate& gate_;
  FreeSpaceMeter& meter_;
  EarlyWarning warning_;
};

}  // namespace quillmark
