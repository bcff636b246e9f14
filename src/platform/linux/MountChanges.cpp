#include "platform/linux/MountChanges.h"

namespace quillmark::os {
namespace {

// A whole file system of a block device, or a whole subvolume: btrfs shows a device number of no block device. Kinds
// without a device (overlays, tmpfs, namespaces, networks) and binds of folders are nobody's disk.
bool isOfADisk(const MountEntry& entry) {
  return entry.isBtrfs() ? entry.isWholeSubvolume() : entry.device.major != 0 && entry.root == "/";
}

bool isOfElsewhere(const MountEntry& entry) { return entry.isServedElsewhere() && !isOfADisk(entry); }

}  // namespace

MountChanges::Mounts MountChanges::mountsOf(const MountTable& table, bool (*counts)(const MountEntry&)) {
  Mounts found;
  for (const MountEntry& entry : table.entries()) {
    if (!counts(entry) || !table.isVisible(entry)) continue;
    found.insert_or_assign({entry.device, entry.mountPoint},
                           Mount{entry.id, entry.subvolumeId, entry.readOnly, entry.superReadOnly});
  }
  return found;
}

std::vector<MountChanges::Change> MountChanges::update(const MountTable& table) {
  Mounts now = mountsOf(table, isOfADisk);
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
  Mounts elsewhere = mountsOf(table, isOfElsewhere);
  for (const auto& [key, mount] : elsewhere) {
    const auto before = servedElsewhere_.find(key);
    const bool isNew = before == servedElsewhere_.end() || before->second.id != mount.id;
    if (isNew) changes.push_back({DiskEvent::Kind::servedElsewhere, key});
  }
  servedElsewhere_ = std::move(elsewhere);
  return changes;
}

std::vector<MountChanges::Key> MountChanges::mounted() const {
  std::vector<Key> keys;
  for (const auto& [key, mount] : mounts_) keys.push_back(key);
  return keys;
}

}  // namespace quillmark::os
