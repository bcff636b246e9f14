// What diskutil answers: snapshots with their XIDs, containers with their volumes, facts of one volume. What isn't known
// is left out, never told as 0.
// Threads: pure but for the disk.
// Errors:  throws Error with a sentence for whoever called.
#pragma once

#include <string>

#include "platform/PropertyList.h"
#include "platform/linux/DeviceNames.h"

namespace quillmark::os {

// Needs CAP_SYS_ADMIN. A name stands once, as a path does, and no XID is 0, as transactions are counted from 1.
[[nodiscard]] PropertyList snapshotsOfVolume(DeviceNames& names, const std::string& device);
[[nodiscard]] PropertyList containers(DeviceNames& names);
// Of a device ("disk1s1", "/dev/disk1s1") or a mount point.
[[nodiscard]] PropertyList volumeInformation(DeviceNames& names, const std::string& deviceOrMountPoint);

}  // namespace quillmark::os
