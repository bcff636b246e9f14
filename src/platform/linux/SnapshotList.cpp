#include "platform/linux/SnapshotList.h"

#include <algorithm>
#include <cerrno>

namespace quillmark::os {
namespace {

// Past either bound only the end of a path is told.
constexpr int nestingLimit = 128;
constexpr std::size_t pathLimit = 64 * 1024;

bool isUnresolvable(int error) { return error == ENAMETOOLONG || error == ENOENT; }

bool isForeign(const ListedSnapshot& snapshot) { return snapshot.name.starts_with(':'); }

}  // namespace

bool VolumeIdentity::isSnapshot(const btrfs::Subvolume& candidate) const {
  return candidate.readOnly && candidate.parentUuid == subvolume && candidate.id != id;
}

SysResult<std::string> SubvolumePaths::prefixOfSubvolume(btrfs::SubvolumeId id, int depth) {
  if (id == btrfs::topLevelId) return std::string();
  if (depth >= nestingLimit) return Errno{ENAMETOOLONG};
  if (!places_.contains(id)) {
    auto found = btrfs::findSubvolume(fd_, id);
    if (!found) return Errno{found.error()};
    if (!found->place) return Errno{ENOENT};
    know(id, std::move(*found->place));
  }
  const btrfs::Place place = places_.at(id);
  const auto prefix = prefixOf({place.parent, place.directory}, depth + 1);
  if (!prefix) return Errno{prefix.error()};
  return **prefix + place.name + "/";
}

SysResult<const std::string*> SubvolumePaths::prefixOf(Directory directory, int depth) {
  if (const auto known = prefixes_.find(directory); known != prefixes_.end()) return &known->second;
  auto prefix = prefixOfSubvolume(directory.subvolume, depth);
  if (!prefix) return Errno{prefix.error()};
  if (directory.inode != btrfs::rootInode) {
    const auto within = btrfs::directoryPath(fd_, directory.subvolume, directory.inode);
    if (!within) return Errno{within.error()};
    *prefix += *within;
  }
  if (prefix->size() > pathLimit) return Errno{ENAMETOOLONG};
  return &prefixes_.emplace(directory, std::move(*prefix)).first->second;
}

SysResult<TopLevelPath> SubvolumePaths::pathOf(const btrfs::Place& place) {
  const auto prefix = prefixOf({place.parent, place.directory}, 0);
  if (prefix) return TopLevelPath{**prefix + place.name, true};
  if (isUnresolvable(prefix.error())) return TopLevelPath{place.name, false};
  return Errno{prefix.error()};
}

SysResult<std::vector<ListedSnapshot>> listSnapshots(int fd, const VolumeIdentity& volume) {
  std::vector<ListedSnapshot> found;
  SubvolumePaths paths(fd);
  const SysStatus read = btrfs::forEachSubvolume(fd, [&](const btrfs::Subvolume& subvolume, const btrfs::Place& place) {
    if (volume.isSnapshot(subvolume)) {
      found.push_back({{}, snapshotXid(subvolume), subvolume, place});
    } else {
      paths.know(subvolume.id, place);
    }
  });
  if (!read) return Errno{read.error()};
  for (ListedSnapshot& snapshot : found) {
    auto path = paths.pathOf(snapshot.place);
    if (!path) return Errno{path.error()};
    snapshot.name = listedName(*path, volume.volume, snapshot.subvolume.uuid);
  }
  if (volume.subvolume.isNil()) std::erase_if(found, isForeign);
  const auto isOlder = [](const ListedSnapshot& a, const ListedSnapshot& b) { return a.xid < b.xid; };
  // Ids ascend as transactions do, until a remount gives one anew.
  if (!std::is_sorted(found.begin(), found.end(), isOlder)) std::sort(found.begin(), found.end(), isOlder);
  return found;
}

}  // namespace quillmark::os
