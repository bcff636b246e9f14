// LeaseWatch: leases on file systems, told of their mounts by poll(2) on mountinfo.
// Threads: one of its own for each lease, which sleeps until the mount table changes.
#pragma once

#include <memory>
#include <string>

#include "base/UniqueFunction.h"
#include "platform/MountLease.h"
#include "platform/linux/MountTable.h"

namespace quillmark {

class Dispatch;
class Queue;

namespace os {

// True when somebody else than we has the file system mounted in this namespace.
[[nodiscard]] bool hasOtherMounts(const MountTable& table, DeviceNumber device, const std::string& privateRoot);

// See Disks::lease.
[[nodiscard]] std::unique_ptr<MountLease> leaseFileSystem(Dispatch& dispatch, std::shared_ptr<Queue> queue,
                                                          const std::string& mountPoint, const std::string& privateRoot,
                                                          UniqueFunction<void()> onRevoked);

}  // namespace os
}  // namespace quillmark
