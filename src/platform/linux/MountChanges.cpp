#include "platform/linux/MountChanges.h"

namespace quillmark::os {
namespace {

// A whole file system of a block device, or a whole subvolume: btrfs shows a device number of no block device. Kinds
// without a device (overlays, tmpfs, namespaces, networks) and binds of folders are nobody's disk.
bool isOfADisk(const MountEntry& entry) {
  return entry.isBtrfs() ? entry.isWholeSubvolume() : entry.device.major != 0 && entry.root == "/";
}

}  // namespace

std::map<MountChanges::Key, MountChanges::Mount> MountChanges::disksOf(const MountTable& table) {
  std::map<Key, Mount> found;
  for (const MountEntry& entry : table.entries()) {
    if (!isOfADisk(entry) || !table.isVisible(entry)) continue;
    found.insert_or_assign({entry.device, entry.mountPoint},
                           Mount{entry.id, entry.subvolumeId, entry.readOnly, entry.superReadOnly});
  }
  return found;
}

std::vector<MountChanges::Change> MountChanges::update(const MountTable& table) {
  std::map<Key, Mount> now = disksOf(table);
  std::vector<Change> changes;
  for (const auto& [key, mount] : mounts_) {
    if (!now.contains(key)) changes.push_back({DiskEvent::Kind::disappeared, key});
  }
  for (const auto& [key, mount] : now) {
    const auto before = mounts_.find(key);
    if (before == mounts_.end()) {
      changes.push_back({DiskEvent::Kind::appeared, key});
    } else if (before->second != mount) {
      changes.push_back({DiskEvent::Kind::descriptionChanged, key});
    }
  }
  mounts_ = std::move(now);
  return changes;
}

std::vector<MountChanges::Key> MountChanges::mounted() const {
  std::vector<Key> keys;
  for (const auto& [key, mount] : mounts_) keys.push_back(key);
  return keys;
}

}  // namespace quillmark::os
