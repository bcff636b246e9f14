// MountTable: what is mounted where, decided from the text of mountinfo (proc_pid_mountinfo(5)) alone. No question asked
// of it touches a file system, so that a dead one can't hang the caller.
// Ownership: plain values; pointers to entries live as long as the table.
// Threads:   immutable.
// Errors:    lines that aren't mountinfo's are left out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/SysResult.h"

namespace quillmark::os {

// The superblock's device number: the same for all mounts of a file system, in every mount namespace.
struct DeviceNumber {
  std::uint32_t major = 0;
  std::uint32_t minor = 0;
  auto operator<=>(const DeviceNumber&) const = default;
};

struct MountEntry {
  std::uint64_t id = 0;
  std::uint64_t parent = 0;
  DeviceNumber device;
  std::string root;  // this and what follows: names as text
  std::string mountPoint;
  std::string type;
  std::string source;
  bool readOnly = false;  // this mount alone
  bool superReadOnly = false;
  bool noSuid = false;
  bool noDev = false;
  std::optional<std::uint64_t> subvolumeId;  // btrfs only
  std::optional<std::string> subvolume;      // its path at the top level; absent once it is deleted

  // False when a directory on the way to the mount point lies on a mount that may never answer: a look-up could hang.
  bool isReachable = true;

  [[nodiscard]] bool isBtrfs() const { return type == "btrfs"; }
  // Of a kind that lives on this machine's own disks and memory; a network's, FUSE and automounters wait for others. The
  // root is trusted whatever it is: nothing runs on a machine whose root is dead.
  [[nodiscard]] bool answersAlways() const;
  // Waits for somebody else to answer: a network's, FUSE's or an automounter's.
  [[nodiscard]] bool isServedElsewhere() const;
  // A subvolume from its root: a bind of a folder within one isn't.
  [[nodiscard]] bool isWholeSubvolume() const { return isBtrfs() && subvolumeId && subvolume && root == *subvolume; }
  // A subvolume that was deleted while it was mounted; no path names it any more.
  [[nodiscard]] bool isDeletedSubvolume() const {
    return isBtrfs() && subvolumeId && !subvolume && root.ends_with("//deleted");
  }
  // What is ours to serve. Below a mount that may never answer nothing is, or one dead server would stop the service
  // for all volumes.
  [[nodiscard]] bool isVolume() const { return isWholeSubvolume() && !readOnly && !superReadOnly && isReachable; }
};

class MountTable final {
 public:
  [[nodiscard]] static MountTable parse(std::string_view text);
  // This process's namespace, as it stands now.
  [[nodiscard]] static SysResult<MountTable> read();

  // In the order of mounting.
  [[nodiscard]] const std::vector<MountEntry>& entries() const { return entries_; }
  // The mount that a look-up of an absolute path without ".", ".." and symbolic links ends in; null when it leaves the
  // table.
  [[nodiscard]] const MountEntry* holder(std::string_view path) const;
  // True when the mount's own mount point leads to it: nothing was mounted over it or over a directory above it.
  [[nodiscard]] bool isVisible(const MountEntry& entry) const { return holder(entry.mountPoint) == &entry; }
  // The visible mount whose mount point is exactly this path.
  [[nodiscard]] const MountEntry* at(std::string_view mountPoint) const;
  // The first visible and reachable mount of each volume.
  [[nodiscard]] std::vector<const MountEntry*> volumes() const;
  // A mount through which a user writes to the file system, wherever it is; null when none is left. Mounted snapshots
  // aren't among them.
  [[nodiscard]] const MountEntry* writableMount(DeviceNumber device) const;
  [[nodiscard]] bool isMounted(DeviceNumber device, std::uint64_t subvolumeId) const;

 private:
  static constexpr std::uint64_t outside = ~0ull;  // stands for the mount that the topmost ones hang on

  void index();
  [[nodiscard]] const MountEntry* child(std::uint64_t parent, std::string_view mountPoint) const;
  [[nodiscard]] const MountEntry* topmost(const MountEntry* below, std::string_view path) const;
  [[nodiscard]] bool isWayOpen(const MountEntry& entry) const;

  struct Child {
    std::uint64_t parent;
    std::size_t entry;
  };
  std::vector<MountEntry> entries_;
  std::vector<Child> children_;  // by parent, then mount point, then order of mounting
};

}  // namespace quillmark::os
