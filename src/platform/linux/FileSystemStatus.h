// statfs(2) answered from the mount table: which mount holds a path, and what that mount is.
// Threads: pure but for look-ups on the disk.
// Errors:  errno.
#pragma once

#include <string>
#include <vector>

#include "base/SysResult.h"
#include "platform/SnapshotCalls.h"
#include "platform/linux/DeviceNames.h"
#include "platform/linux/MountTable.h"

namespace quillmark::os {

// The path with its symbolic links followed. Looks things up on file systems of this machine's own disks and memory
// only: from where another kind (a network's, FUSE, an automounter's) is mounted on, the rest is taken as it is written
// and believed to exist. ENOENT, ENOTDIR, ELOOP.
[[nodiscard]] SysResult<std::string> resolvedPath(const MountTable& table, const std::string& path);

// Block counts are told of btrfs alone, the one kind that is asked. The source of a mounted snapshot is
// "<name>@/dev/<volume>"; of one that is deleted by now "deleted-<subvolume id>@/dev/<device>".
[[nodiscard]] SysResult<FileSystemStatus> fileSystemStatus(const std::string& path, DeviceNames& names);
// Of every visible mount of a whole subvolume.
[[nodiscard]] SysResult<std::vector<FileSystemStatus>> subvolumeStatuses(DeviceNames& names);

}  // namespace quillmark::os
