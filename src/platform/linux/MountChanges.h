// MountChanges: which mounts of disks' file systems came, went or changed from one mount table to the next, and which came
// of those that are served elsewhere. Pure, so that what counts as a disk is decided without a disk.
// Threads: thread-compatible.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/Disks.h"
#include "platform/linux/MountTable.h"

namespace quillmark::os {

class MountChanges final {
 public:
  using Key = std::pair<DeviceNumber, std::string>;  // of the superblock, and the mount point
  struct Change {
    DiskEvent::Kind kind;
    Key key;
    bool operator==(const Change&) const = default;
  };

  // What went comes first, so that a mount point that was given on is free before it is taken.
  [[nodiscard]] std::vector<Change> update(const MountTable& table);
  [[nodiscard]] std::vector<Key> mounted() const;

 private:
  // What makes a mount another one, or otherwise mounted.
  struct Mount {
    std::uint64_t id;
    std::optional<std::uint64_t> subvolumeId;
    bool readOnly;
    bool superReadOnly;
    bool operator==(const Mount&) const = default;
  };
  using Mounts = std::map<Key, Mount>;
  [[nodiscard]] static Mounts mountsOf(const MountTable& table, bool (*counts)(const MountEntry&));

  Mounts mounts_;
  Mounts servedElsewhere_;
};

}  // namespace quillmark::os
