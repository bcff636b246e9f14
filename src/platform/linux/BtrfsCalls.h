// The btrfs calls that snapshots and volumes are made of (btrfs-ioctl(2)), one function each.
// Ownership: descriptors are borrowed; any open file or directory of the file system serves unless said otherwise.
// Threads:   pure but for the disk. Every call may wait for it.
// Errors:    errno.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/FunctionRef.h"
#include "base/SysResult.h"
#include "base/Uuid.h"

namespace quillmark::os::btrfs {

using SubvolumeId = std::uint64_t;
inline constexpr SubvolumeId topLevelId = 5;
// The inode number of every subvolume's root directory.
inline constexpr std::uint64_t rootInode = 256;

struct Time {
  std::int64_t seconds = 0;  // since 1970
  std::int64_t nanoseconds = 0;
  bool operator==(const Time&) const = default;
};

// A subvolume as its root item tells it.
struct Subvolume {
  SubvolumeId id = 0;
  Uuid uuid;
  Uuid parentUuid;  // of what it is a snapshot of; nil for none
  bool readOnly = false;
  std::uint64_t otransid = 0;  // the transaction it was made in
  // The transaction that last changed anything in it, up to otransid for a snapshot that nobody wrote to. Root items tell
  // it as of the last commit, an open file as it is.
  std::uint64_t lastChange = 0;
  Time otime;

  bool operator==(const Subvolume&) const = default;
};

// Where a subvolume stands: its back reference.
struct Place {
  SubvolumeId parent = 0;
  std::uint64_t directory = 0;  // inode number within the parent
  std::string name;             // bytes

  bool operator==(const Place&) const = default;
};

// The subvolume that holds the open file. For everybody.
[[nodiscard]] SysResult<Subvolume> subvolumeOf(int fd);

struct FileSystem {
  Uuid fsid;
  std::vector<std::string> devices;  // paths of the members that are present, in the order of their ids; bytes
};
[[nodiscard]] SysResult<FileSystem> fileSystemOf(int fd);
[[nodiscard]] SysResult<Uuid> fsidOf(int fd);
// Bytes; empty when there is none.
[[nodiscard]] SysResult<std::string> label(int fd);

struct TreeKey {
  std::uint64_t objectId = 0;
  std::uint32_t type = 0;
  std::uint64_t offset = 0;
};
// Calls `use` with the items of a tree whose key lies between the two (in the order of object, type, offset) until it
// answers false. Needs CAP_SYS_ADMIN.
using TreeItemUse = FunctionRef<bool(const TreeKey&, std::span<const std::byte>)>;
[[nodiscard]] SysStatus searchTree(int fd, std::uint64_t tree, TreeKey first, TreeKey last, TreeItemUse use);

// Every subvolume below the top level that still has its back reference: one that was deleted loses that first.
using SubvolumeUse = FunctionRef<void(const Subvolume&, const Place&)>;
[[nodiscard]] SysStatus forEachSubvolume(int fd, SubvolumeUse use);
struct PlacedSubvolume {
  Subvolume subvolume;
  std::optional<Place> place;  // absent once deleted
};
// ENOENT when the cleaner has taken it away.
[[nodiscard]] SysResult<PlacedSubvolume> findSubvolume(int fd, SubvolumeId id);
// The path of a directory within its subvolume, ending in "/"; empty for the root. ENAMETOOLONG past 4,080 bytes.
[[nodiscard]] SysResult<std::string> directoryPath(int fd, SubvolumeId subvolume, std::uint64_t inode);
// True when the inode bears the immutable or the append-only flag.
[[nodiscard]] SysResult<bool> isPinned(int fd, SubvolumeId subvolume, std::uint64_t inode);
[[nodiscard]] SysResult<SubvolumeId> defaultSubvolume(int fd);

// `directory` and `source` are opened for reading; the source is a subvolume's root. On return it is on disk.
[[nodiscard]] SysStatus createSnapshot(int directory, int source, const std::string& name);
// Destroys whatever bears the id, a live or a mounted subvolume too: who calls has checked. Needs a descriptor of the
// top level. The space comes back later.
[[nodiscard]] SysStatus destroySubvolume(int topLevel, SubvolumeId id);
// Returns when what was done so far is on disk.
[[nodiscard]] SysStatus commit(int fd);
// Writes out all data too, and sets the cleaner to work even when there was nothing to commit.
[[nodiscard]] SysStatus syncAndClean(int fd);

}  // namespace quillmark::os::btrfs
