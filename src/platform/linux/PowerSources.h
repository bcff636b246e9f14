// LinuxPowerSources: the supplies of the class power_supply in sysfs (sysfs-class-power of the kernel's ABI documents).
#pragma once

#include <string>

#include "platform/PowerSources.h"

namespace quillmark::os {

class LinuxPowerSources final : public PowerSources {
 public:
  explicit LinuxPowerSources(std::string directory = "/sys/class/power_supply") : directory_(std::move(directory)) {}
  // A plug that gives power, or no battery of the system that discharges.
  bool isOnACPower() override;

 private:
  const std::string directory_;
};

}  // namespace quillmark::os
