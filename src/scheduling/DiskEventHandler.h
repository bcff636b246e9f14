// DiskEventHandler: what the service does when disks come and go.
// Threads: confined to the scheduler's queue.
#pragma once

#include "scheduling/DiskEventLog.h"
#include "scheduling/SchedulerServices.h"

namespace quillmark {

class DiskEventHandler final {
 public:
  explicit DiskEventHandler(const SchedulerServices& services);

  // True when free space is to be looked at.
  [[nodiscard]] bool handle(const DiskEvent& event);

 private:
  [[nodiscard]] bool isSnapshotMountEvent(const DiskEvent& event) const;

  const SchedulerServices& services_;
  DiskEventLog log_;
};

}  // namespace quillmark
