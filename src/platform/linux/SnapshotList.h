// The snapshots of a btrfs volume: its read-only subvolumes whose parent it is, wherever they stand and whoever made
// them. Found by the parent's UUID, never by place or name.
// Threads: pure but for the disk. Needs CAP_SYS_ADMIN.
// Errors:  errno.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "base/SysResult.h"
#include "base/Uuid.h"
#include "base/Xid.h"
#include "platform/linux/BtrfsCalls.h"
#include "platform/linux/SnapshotNames.h"

namespace quillmark::os {

struct ListedSnapshot {
  std::string name;  // as text; unique within the list
  Xid xid;
  btrfs::Subvolume subvolume;
  btrfs::Place place;
};

struct VolumeIdentity {
  btrfs::SubvolumeId id = 0;
  Uuid subvolume;  // nil for a top level made by old tools
  Uuid volume;     // the same, or the file system's in its place

  // A nil UUID is the parent of everything that has no parent: of such a volume a listing keeps only what stands in our
  // place for it.
  [[nodiscard]] bool isSnapshot(const btrfs::Subvolume& candidate) const;
};

// Finds the top-level paths of subvolumes, each directory once.
// Ownership: borrows the descriptor.
class SubvolumePaths final {
 public:
  explicit SubvolumePaths(int fd) : fd_(fd) {}
  // Spares the look-up of a subvolume that was read already.
  void know(btrfs::SubvolumeId id, btrfs::Place place) { places_.insert_or_assign(id, std::move(place)); }
  [[nodiscard]] SysResult<TopLevelPath> pathOf(const btrfs::Place& place);

 private:
  struct Directory {
    btrfs::SubvolumeId subvolume;
    std::uint64_t inode;
    bool operator==(const Directory&) const = default;
  };
  struct DirectoryHash {
    std::size_t operator()(const Directory& directory) const noexcept {
      return std::hash<std::uint64_t>{}(directory.subvolume * 0x9E3779B97F4A7C15 ^ directory.inode);
    }
  };
  [[nodiscard]] SysResult<const std::string*> prefixOf(Directory directory, int depth);
  [[nodiscard]] SysResult<std::string> prefixOfSubvolume(btrfs::SubvolumeId id, int depth);

  int fd_;
  std::unordered_map<btrfs::SubvolumeId, btrfs::Place> places_;
  std::unordered_map<Directory, std::string, DirectoryHash> prefixes_;  // ending in "/"; empty for the top level
};

// In ascending order of their XIDs.
[[nodiscard]] SysResult<std::vector<ListedSnapshot>> listSnapshots(int fd, const VolumeIdentity& volume);

}  // namespace quillmark::os
