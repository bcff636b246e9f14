// Finds what no listing tells of a btrfs volume: the subvolumes that its snapshots leave out, and snapshots of ours that
// lost their volume.
// Threads: pure but for the disk. Needs CAP_SYS_ADMIN. Reads every subvolume's item once.
// Errors:  errno.
#pragma once

#include "base/SysResult.h"
#include "platform/UnservedSubvolumes.h"
#include "platform/linux/BtrfsMount.h"
#include "platform/linux/MountTable.h"

namespace quillmark::os {

[[nodiscard]] SysResult<UnservedSubvolumes> unservedSubvolumes(const MountedSubvolume& volume, const MountTable& table);

}  // namespace quillmark::os
