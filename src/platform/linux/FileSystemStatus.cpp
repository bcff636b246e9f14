#include "platform/linux/FileSystemStatus.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <deque>

#include "base/UniqueFd.h"
#include "platform/NameText.h"
#include "platform/linux/BtrfsMount.h"
#include "platform/linux/SnapshotNames.h"

namespace quillmark::os {
namespace {

constexpr int linkLimit = 40;

bool answersAlways(const MountEntry* entry) { return entry && entry->answersAlways(); }

void pushFront(std::deque<std::string>& pending, const std::string& path) {
  std::deque<std::string> parts;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    if (end > at) parts.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  pending.insert(pending.begin(), parts.begin(), parts.end());
}

std::string child(const std::string& directory, const std::string& name) {
  return directory == "/" ? "/" + name : directory + "/" + name;
}

std::string parent(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The target of a symbolic link; empty for anything else.
SysResult<std::string> linkTarget(const std::string& path) {
  const UniqueFd handle(::open(nameBytes(path).c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!handle.valid()) return Errno{errno};
  char target[PATH_MAX];
  const ssize_t length = ::readlinkat(handle.get(), "", target, sizeof target);
  return length < 0 ? std::string() : nameText({target, static_cast<std::size_t>(length)});
}

std::uint32_t flagsOf(const MountEntry& entry) {
  std::uint32_t flags = 0;
  if (entry.readOnly || entry.superReadOnly) flags |= mntReadOnly;
  if (entry.noSuid) flags |= mntNoSuid;
  if (entry.noDev) flags |= mntNoDev;
  return flags;
}

// Empty unless it is a snapshot of a volume that has a name.
std::string snapshotSource(const MountEntry& entry, const MountedSubvolume& mounted, DeviceNames& names) {
  const btrfs::Subvolume& subvolume = mounted.subvolume;
  if (!subvolume.readOnly || subvolume.id == btrfs::topLevelId) return {};
  const Uuid& volume = subvolume.parentUuid.isNil() ? mounted.fsid : subvolume.parentUuid;
  const TopLevelPath path{nameBytes(entry.root).substr(1), true};
  const std::string name = listedName(path, volume, subvolume.uuid);
  if (subvolume.parentUuid.isNil() && name.starts_with(':')) return {};
  const auto device = names.givenVolume({mounted.fsid, volume});
  return device ? name + "@/dev/" + *device : std::string();
}

// Nothing but its mount is left of a snapshot that was deleted behind our back; it must look like one all the same, or
// nobody could unmount it through us.
bool isLeftOver(const MountEntry& entry) {
  return entry.isDeletedSubvolume() && (entry.readOnly || entry.superReadOnly);
}

std::string leftOverSource(const MountEntry& entry) {
  const std::string device = entry.source.starts_with("/dev/") ? entry.source : "/dev/" + entry.source;
  return "deleted-" + std::to_string(*entry.subvolumeId) + "@" + device;
}

void addBlocks(int fd, FileSystemStatus& status) {
  struct statvfs blocks;
  if (::fstatvfs(fd, &blocks) != 0) return;
  status.blockSize = blocks.f_frsize;
  status.blocks = blocks.f_blocks;
  status.availableBlocks = blocks.f_bavail;
}

void addWhatBtrfsTells(const MountEntry& entry, DeviceNames& names, FileSystemStatus& status) {
  const auto mounted = openSubvolume(entry);
  if (!mounted) return;
  addBlocks(mounted->fd.get(), status);
  const std::string source = entry.isWholeSubvolume() ? snapshotSource(entry, *mounted, names) : std::string();
  if (!source.empty()) status.mntfromname = source;
}

FileSystemStatus statusOf(const MountEntry& entry, DeviceNames& names) {
  FileSystemStatus status;
  status.flags = flagsOf(entry);
  status.fstypename = entry.isWholeSubvolume() || isLeftOver(entry) ? "apfs" : entry.type;
  status.mntonname = entry.mountPoint;
  status.mntfromname = isLeftOver(entry) ? leftOverSource(entry) : entry.source;
  if (entry.isBtrfs()) addWhatBtrfsTells(entry, names, status);
  return status;
}

}  // namespace

SysResult<std::string> resolvedPath(const MountTable& table, const std::string& path) {
  if (!path.starts_with('/')) return Errno{ENOENT};
  std::string resolved = "/";
  std::deque<std::string> pending;
  pushFront(pending, path);
  for (int links = 0; !pending.empty();) {
    const std::string name = std::move(pending.front());
    pending.pop_front();
    if (name == ".") continue;
    if (name == "..") {
      resolved = parent(resolved);
      continue;
    }
    const std::string next = child(resolved, name);
    // The parent was asked before; what is mounted over the child must answer too before the child is touched.
    if (answersAlways(table.holder(resolved)) && answersAlways(table.holder(next))) {
      const auto target = linkTarget(next);
      if (!target) return Errno{target.error()};
      if (!target->empty()) {
        if (++links > linkLimit) return Errno{ELOOP};
        if (target->starts_with('/')) resolved.assign(1, '/');
        pushFront(pending, *target);
        continue;
      }
    }
    resolved = next;
  }
  return resolved;
}

SysResult<FileSystemStatus> fileSystemStatus(const std::string& path, DeviceNames& names) {
  const auto table = MountTable::read();
  if (!table) return Errno{table.error()};
  const auto resolved = resolvedPath(*table, path);
  if (!resolved) return Errno{resolved.error()};
  const MountEntry* entry = table->holder(*resolved);
  if (!entry) return Errno{ENOENT};
  return statusOf(*entry, names);
}

SysResult<std::vector<FileSystemStatus>> subvolumeStatuses(DeviceNames& names) {
  const auto table = MountTable::read();
  if (!table) return Errno{table.error()};
  std::vector<FileSystemStatus> statuses;
  for (const MountEntry& entry : table->entries()) {
    if (entry.isWholeSubvolume() && table->isVisible(entry)) statuses.push_back(statusOf(entry, names));
  }
  return statuses;
}

}  // namespace quillmark::os
