// DiscoveryNotice: tells people, once for each volume, of the snapshots that it brought along.
// Threads: confined to the volume's queue.
#pragma once

#include "scheduling/ScheduleEvents.h"
#include "scheduling/SchedulerServices.h"
#include "scheduling/rules/PruneRules.h"

namespace quillmark {

class DiscoveryNotice final {
 public:
  DiscoveryNotice(const SchedulerServices& services, ScheduleEvents& events) : services_(services), events_(events) {}
  void run(const VolumeInfo& volume, const std::vector<PruneRules::Snap>& snaps);

 private:
  const SchedulerServices& services_;
  ScheduleEvents& events_;
};

}  // namespace quillmark
