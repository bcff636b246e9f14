// Ways to the files of a btrfs: the mounts that users made, and private mounts that nobody else sees.
// Ownership: each object owns its descriptors; a private mount dissolves with its owner.
// Threads:   thread-compatible.
// Errors:    errno.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/SysResult.h"
#include "base/UniqueFd.h"
#include "platform/linux/BtrfsCalls.h"
#include "platform/linux/MountTable.h"

namespace quillmark::os {

// Opens the root directory of a visible mount for reading. ESTALE when something else has come to lie on its mount
// point since the table was read: nothing of that is opened. EHOSTDOWN, and nothing touched, for one that isn't reachable.
[[nodiscard]] SysResult<UniqueFd> openMount(const MountEntry& entry);

// A mounted subvolume, opened through the user's mount and asked for its identity.
struct MountedSubvolume {
  UniqueFd fd;
  DeviceNumber device;
  btrfs::Subvolume subvolume;
  Uuid fsid;

  // The subvolume's UUID. Top levels made by old tools have none: the file system's stands for it.
  [[nodiscard]] const Uuid& volumeUuid() const { return subvolume.uuid.isNil() ? fsid : subvolume.uuid; }
};
// Needs a visible mount of a whole subvolume.
[[nodiscard]] SysResult<MountedSubvolume> openSubvolume(const MountEntry& entry);

// A file system as private mounts need it; a plain value that pins nothing.
struct FileSystemSource {
  DeviceNumber device;
  Uuid fsid;
  std::vector<std::string> members;  // paths of its devices, as bytes
};
[[nodiscard]] SysResult<FileSystemSource> sourceOf(const MountedSubvolume& volume);

// A mount in no namespace, of one subvolume. It is asked for as read-only but made without the read-only attribute:
// so it writes where the superblock is writable, and never turns a superblock writable that its user made read-only.
// Holds the device as long as it lives: open it for one operation.
class PrivateMount final {
 public:
  enum class Access { readWrite, readOnly };
  // ESTALE when the device bears another file system by now.
  [[nodiscard]] static SysResult<PrivateMount> open(const FileSystemSource& source, btrfs::SubvolumeId id,
                                                    Access access);
  // The top level, writable. EROFS unless a mount of a user's holds the superblock writable.
  [[nodiscard]] static SysResult<PrivateMount> openTopLevel(const FileSystemSource& source);

  // The root directory, opened for reading.
  [[nodiscard]] int root() const { return root_.get(); }
  // Puts the mount into the namespace, over this directory; EBUSY, ENOENT and ENOTDIR as move_mount(2) gives them.
  // Private no longer.
  [[nodiscard]] SysStatus attach(int directory);

 private:
  UniqueFd mount_;
  UniqueFd root_;
};

}  // namespace quillmark::os
