// Is a subvolume mounted anywhere on this machine? A snapshot that is mounted in a container's or a service's own mount
// namespace stands in no table of ours, and destroying it pulls its files away from under whoever reads there.
// Threads: pure.
#pragma once

#include "base/SysResult.h"
#include "platform/linux/BtrfsCalls.h"
#include "platform/linux/MountTable.h"

namespace quillmark::os {

// Reads the table of each namespace that holds a process once. Any errno but "no such process" is handed on: where we
// can't know, the caller refuses. A namespace without processes, kept by a descriptor or a bind, isn't seen.
[[nodiscard]] SysResult<bool> isMountedAnywhere(DeviceNumber device, btrfs::SubvolumeId subvolume);

}  // namespace quillmark::os
