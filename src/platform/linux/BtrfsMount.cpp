#include "platform/linux/BtrfsMount.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/NameText.h"

namespace quillmark::os {
namespace {

constexpr int openDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool isBlockDevice(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
}

SysResult<UniqueFd> mountFrom(const std::string& device, btrfs::SubvolumeId id, PrivateMount::Access access) {
  const UniqueFd context(::fsopen("btrfs", FSOPEN_CLOEXEC));
  if (!context.valid()) return Errno{errno};
  const auto set = [&](const char* key, const std::string& value) {
    return ::fsconfig(context.get(), FSCONFIG_SET_STRING, key, value.c_str(), 0) == 0;
  };
  if (!set("source", device) || !set("subvolid", std::to_string(id)) ||
      ::fsconfig(context.get(), FSCONFIG_SET_FLAG, "ro", nullptr, 0) != 0 ||
      ::fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0) {
    return Errno{errno};
  }
  unsigned attributes = MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV;
  attributes |= access == PrivateMount::Access::readOnly ? MOUNT_ATTR_RDONLY : MOUNT_ATTR_NOATIME;
  UniqueFd mount(::fsmount(context.get(), FSMOUNT_CLOEXEC, attributes));
  if (!mount.valid()) return Errno{errno};
  return mount;
}

// EROFS when no mount of a user's holds the superblock writable.
SysStatus requireUserMount(DeviceNumber device) {
  const auto table = MountTable::read();
  if (!table) return Errno{table.error()};
  if (!table->writableMount(device)) return Errno{EROFS};
  return {};
}

SysResult<UniqueFd> mountFromAny(const FileSystemSource& source, btrfs::SubvolumeId id, PrivateMount::Access access) {
  int error = ENODEV;
  for (const std::string& member : source.members) {
    if (!isBlockDevice(member)) continue;
    auto mount = mountFrom(member, id, access);
    if (mount) return mount;
    error = mount.error();
  }
  return Errno{error};
}

}  // namespace

SysResult<UniqueFd> openMount(const MountEntry& entry) {
  if (!entry.isReachable) return Errno{EHOSTDOWN};
  // The path handle asks nothing of what it leads to, and its mount id tells whether that is what the table promised.
  const UniqueFd handle(::open(nameBytes(entry.mountPoint).c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!handle.valid()) return Errno{errno};
  struct statx status;
  if (::statx(handle.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_MNT_ID, &status) != 0) return Errno{errno};
  if ((status.stx_mask & STATX_MNT_ID) == 0 || status.stx_mnt_id != entry.id) return Errno{ESTALE};
  UniqueFd directory(::openat(handle.get(), ".", openDirectoryFlags));
  if (!directory.valid()) return Errno{errno};
  return directory;
}

SysResult<MountedSubvolume> openSubvolume(const MountEntry& entry) {
  auto fd = openMount(entry);
  if (!fd) return Errno{fd.error()};
  auto subvolume = btrfs::subvolumeOf(fd->get());
  if (!subvolume) return Errno{subvolume.error()};
  auto fsid = btrfs::fsidOf(fd->get());
  if (!fsid) return Errno{fsid.error()};
  if (subvolume->id != entry.subvolumeId) return Errno{ESTALE};
  return MountedSubvolume{std::move(*fd), entry.device, std::move(*subvolume), *fsid};
}

SysResult<FileSystemSource> sourceOf(const MountedSubvolume& volume) {
  auto fileSystem = btrfs::fileSystemOf(volume.fd.get());
  if (!fileSystem) return Errno{fileSystem.error()};
  return FileSystemSource{volume.device, volume.fsid, std::move(fileSystem->devices)};
}

SysResult<PrivateMount> PrivateMount::open(const FileSystemSource& source, btrfs::SubvolumeId id, Access access) {
  auto mounted = mountFromAny(source, id, access);
  if (!mounted) return Errno{mounted.error()};
  PrivateMount result;
  result.mount_ = std::move(*mounted);
  result.root_ = UniqueFd(::openat(result.mount_.get(), ".", openDirectoryFlags));
  if (!result.root_.valid()) return Errno{errno};
  auto fsid = btrfs::fsidOf(result.root());
  if (!fsid) return Errno{fsid.error()};
  if (*fsid != source.fsid) return Errno{ESTALE};
  return result;
}

SysResult<PrivateMount> PrivateMount::openTopLevel(const FileSystemSource& source) {
  // Asked before, so that we are never the first to mount; and after, for a user who unmounted meanwhile.
  if (const SysStatus before = requireUserMount(source.device); !before) return Errno{before.error()};
  auto mount = open(source, btrfs::topLevelId, Access::readWrite);
  if (!mount) return mount;
  if (const SysStatus after = requireUserMount(source.device); !after) return Errno{after.error()};
  return mount;
}

SysStatus PrivateMount::attach(int directory) {
  if (::move_mount(mount_.get(), "", directory, "", MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) != 0) {
    return Errno{errno};
  }
  return {};
}

}  // namespace quillmark::os
