// MountWatch: turns changes of this process's mount table into disk events, told by poll(2) on mountinfo.
// Ownership: borrows the disks, which describe what was mounted; its end waits for a description under way.
// Threads:   one of its own, which sleeps until the kernel tells of a change. Bursts are looked at as one.
#pragma once

#include <memory>

#include "platform/Disks.h"

namespace quillmark::os {

// Null when the mount table can't be watched.
[[nodiscard]] std::unique_ptr<DiskWatch> watchMounts(Disks& disks, Dispatch& dispatch, std::shared_ptr<Queue> queue,
                                                     Disks::DiskEventHandler handler);

}  // namespace quillmark::os
