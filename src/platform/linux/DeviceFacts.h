// What sysfs tells of the devices below a file system (sysfs(5), and the kernel's Documentation/ABI). For everybody.
// Threads: pure.
// Errors:  none; what isn't told is absent.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/Uuid.h"

namespace quillmark::os {

struct DeviceFacts {
  // "NVMe", "USB", "SATA", "SD Card", "MMC", "Thunderbolt", "Virtio", "Loop", "SCSI".
  std::optional<std::string> protocol;
  // False for what goes with a cable, a slot or a file: USB, Thunderbolt, SD cards, removable media, loop.
  std::optional<bool> isInternal;
  std::optional<std::string> model;
  // True when a dm-crypt lies below every member; absent when that can't be told, as for a loop device's file.
  std::optional<bool> isEncrypted;
  // From the device upwards, as volume inventory names the classes of a registry.
  std::vector<std::string> classes;
};

// Of the first member device, down to the physical one below LVM, md and dm-crypt. Absent without a member.
[[nodiscard]] std::optional<DeviceFacts> deviceFacts(const Uuid& fileSystem, const std::string& sysfs = "/sys");

}  // namespace quillmark::os
