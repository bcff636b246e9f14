// DiskEventHandler: what the service does when disks come and go.
// Threads: handle() is confined to the scheduler's queue; unmountDissent() is thread-safe.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "scheduling/DiskEventLog.h"
#include "scheduling/SchedulerServices.h"

namespace quillmark {

class DiskEventHandler final {
 public:
  explicit DiskEventHandler(const SchedulerServices& services);

  // True when free space is to be looked at.
  [[nodiscard]] bool handle(const DiskEvent& event);
  // Why the disk at the path must not be unmounted now; absent when it may be. For people. Advice where the platform
  // asks nobody before an unmount.
  [[nodiscard]] std::optional<std::string> unmountDissent(const std::string& path) const;

 private:
  [[nodiscard]] bool isSnapshotMountEvent(const DiskEvent& event) const;
  [[nodiscard]] bool isUserMountOfSnapshot(const std::string& path) const;

  const SchedulerServices& services_;
  DiskEventLog log_;
};

}  // namespace quillmark
