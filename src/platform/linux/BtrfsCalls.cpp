#include "platform/linux/BtrfsCalls.h"

#include <endian.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/linux/TreeSearch.h"

namespace quillmark::os::btrfs {
namespace {

// A file system never has more devices than this; ids go up with each that was ever added.
constexpr std::uint64_t deviceIdLimit = 4096;
// Flags of an inode item, on disk.
constexpr std::uint64_t inodeImmutable = 1u << 6;
constexpr std::uint64_t inodeAppend = 1u << 7;

SysStatus call(int fd, unsigned long request, void* argument) {
  if (::ioctl(fd, request, argument) < 0) return Errno{errno};
  return {};
}

Uuid uuidOf(const std::uint8_t (&bytes)[16]) {
  Uuid uuid;
  std::copy(std::begin(bytes), std::end(bytes), uuid.bytes.begin());
  return uuid;
}

// What a damaged or hostile disk says must still make a valid time.
Time timeOf(std::uint64_t seconds, std::uint32_t nanoseconds) {
  return {static_cast<std::int64_t>(seconds), std::min<std::int64_t>(nanoseconds, 999'999'999)};
}

// Items of older file systems are shorter: what they lack is zero.
template <class Item>
Item itemOf(std::span<const std::byte> bytes) {
  Item item{};
  std::memcpy(&item, bytes.data(), std::min(bytes.size(), sizeof item));
  return item;
}

Subvolume subvolumeOfItem(SubvolumeId id, std::span<const std::byte> bytes) {
  const auto item = itemOf<btrfs_root_item>(bytes);
  return {.id = id,
          .uuid = uuidOf(item.uuid),
          .parentUuid = uuidOf(item.parent_uuid),
          .readOnly = (le64toh(item.flags) & BTRFS_ROOT_SUBVOL_RDONLY) != 0,
          .otransid = le64toh(item.otransid),
          .lastChange = le64toh(item.ctransid),
          .otime = timeOf(le64toh(item.otime.sec), le32toh(item.otime.nsec))};
}

std::optional<Place> placeOfItem(SubvolumeId parent, std::span<const std::byte> bytes) {
  if (bytes.size() < sizeof(btrfs_root_ref)) return std::nullopt;
  const auto item = itemOf<btrfs_root_ref>(bytes);
  const std::span<const std::byte> rest = bytes.subspan(sizeof item);
  const std::size_t length = std::min<std::size_t>(le16toh(item.name_len), rest.size());
  return Place{parent, le64toh(item.dirid), std::string(reinterpret_cast<const char*>(rest.data()), length)};
}

SysResult<btrfs_ioctl_fs_info_args> informationOf(int fd) {
  btrfs_ioctl_fs_info_args information{};
  if (const SysStatus status = call(fd, BTRFS_IOC_FS_INFO, &information); !status) return Errno{status.error()};
  return information;
}

}  // namespace

SysResult<Subvolume> subvolumeOf(int fd) {
  btrfs_ioctl_get_subvol_info_args information{};
  if (const SysStatus status = call(fd, BTRFS_IOC_GET_SUBVOL_INFO, &information); !status) return Errno{status.error()};
  return Subvolume{.id = information.treeid,
                   .uuid = uuidOf(information.uuid),
                   .parentUuid = uuidOf(information.parent_uuid),
                   .readOnly = (information.flags & BTRFS_ROOT_SUBVOL_RDONLY) != 0,
                   .otransid = information.otransid,
                   .lastChange = information.ctransid,
                   .otime = timeOf(information.otime.sec, information.otime.nsec)};
}

SysResult<FileSystem> fileSystemOf(int fd) {
  auto information = informationOf(fd);
  if (!information) return Errno{information.error()};
  FileSystem result{.fsid = uuidOf(information->fsid), .devices = {}};
  const std::uint64_t lastId = std::min<std::uint64_t>(information->max_id, deviceIdLimit);
  for (std::uint64_t id = 1; id <= lastId && result.devices.size() < information->num_devices; ++id) {
    btrfs_ioctl_dev_info_args device{};
    device.devid = id;
    if (!call(fd, BTRFS_IOC_DEV_INFO, &device)) continue;
    const auto* path = reinterpret_cast<const char*>(device.path);
    if (*path) result.devices.emplace_back(path, strnlen(path, sizeof device.path));
  }
  return result;
}

SysResult<Uuid> fsidOf(int fd) {
  auto information = informationOf(fd);
  if (!information) return Errno{information.error()};
  return uuidOf(information->fsid);
}

SysResult<std::string> label(int fd) {
  char text[BTRFS_LABEL_SIZE] = {};
  if (const SysStatus status = call(fd, BTRFS_IOC_GET_FSLABEL, text); !status) return Errno{status.error()};
  return std::string(text, strnlen(text, sizeof text));
}

SysStatus searchTree(int fd, std::uint64_t tree, TreeKey first, TreeKey last, TreeItemUse use) {
  return TreeSearch(TreeSearch::bulkBuffer).run(fd, tree, first, last, use);
}

SysStatus forEachSubvolume(int fd, SubvolumeUse use) {
  std::optional<Subvolume> current;
  const TreeKey first{BTRFS_FIRST_FREE_OBJECTID, 0, 0}, last{BTRFS_LAST_FREE_OBJECTID, 255, ~0ull};
  return searchTree(fd, BTRFS_ROOT_TREE_OBJECTID, first, last,
                    [&](const TreeKey& key, std::span<const std::byte> item) {
                      if (key.type == BTRFS_ROOT_ITEM_KEY) current = subvolumeOfItem(key.objectId, item);
                      if (key.type == BTRFS_ROOT_BACKREF_KEY && current && current->id == key.objectId) {
                        if (const auto place = placeOfItem(key.offset, item)) use(*current, *place);
                      }
                      return true;
                    });
}

SysResult<PlacedSubvolume> findSubvolume(int fd, SubvolumeId id) {
  std::optional<PlacedSubvolume> found;
  const TreeKey first{id, BTRFS_ROOT_ITEM_KEY, 0}, last{id, BTRFS_ROOT_BACKREF_KEY, ~0ull};
  const SysStatus status =
      searchTree(fd, BTRFS_ROOT_TREE_OBJECTID, first, last, [&](const TreeKey& key, std::span<const std::byte> item) {
        if (key.type == BTRFS_ROOT_ITEM_KEY) found = PlacedSubvolume{subvolumeOfItem(id, item), std::nullopt};
        if (key.type == BTRFS_ROOT_BACKREF_KEY && found) found->place = placeOfItem(key.offset, item);
        return true;
      });
  if (!status) return Errno{status.error()};
  if (!found) return Errno{ENOENT};
  return std::move(*found);
}

SysResult<std::string> directoryPath(int fd, SubvolumeId subvolume, std::uint64_t inode) {
  btrfs_ioctl_ino_lookup_args arguments{};
  arguments.treeid = subvolume;
  arguments.objectid = inode;
  if (const SysStatus status = call(fd, BTRFS_IOC_INO_LOOKUP, &arguments); !status) return Errno{status.error()};
  return std::string(arguments.name, strnlen(arguments.name, sizeof arguments.name));
}

SysResult<bool> isPinned(int fd, SubvolumeId subvolume, std::uint64_t inode) {
  bool pinned = false;
  const TreeKey key{inode, BTRFS_INODE_ITEM_KEY, 0};
  const SysStatus status = searchTree(fd, subvolume, key, key, [&](const TreeKey&, std::span<const std::byte> item) {
    pinned = (le64toh(itemOf<btrfs_inode_item>(item).flags) & (inodeImmutable | inodeAppend)) != 0;
    return false;
  });
  if (!status) return Errno{status.error()};
  return pinned;
}

SysResult<SubvolumeId> defaultSubvolume(int fd) {
  SubvolumeId id = topLevelId;
  const TreeKey first{BTRFS_ROOT_TREE_DIR_OBJECTID, BTRFS_DIR_ITEM_KEY, 0};
  const TreeKey last{BTRFS_ROOT_TREE_DIR_OBJECTID, BTRFS_DIR_ITEM_KEY, ~0ull};
  const SysStatus status =
      searchTree(fd, BTRFS_ROOT_TREE_OBJECTID, first, last, [&](const TreeKey&, std::span<const std::byte> item) {
        if (item.size() < sizeof(btrfs_dir_item)) return true;
        id = le64toh(itemOf<btrfs_dir_item>(item).location.objectid);
        return false;
      });
  if (!status) return Errno{status.error()};
  return id;
}

SysStatus createSnapshot(int directory, int source, const std::string& name) {
  btrfs_ioctl_vol_args_v2 arguments{};
  if (name.size() > BTRFS_VOL_NAME_MAX) return Errno{ENAMETOOLONG};
  arguments.fd = source;
  arguments.flags = BTRFS_SUBVOL_RDONLY;
  std::memcpy(arguments.name, name.data(), name.size());
  return call(directory, BTRFS_IOC_SNAP_CREATE_V2, &arguments);
}

SysStatus destroySubvolume(int topLevel, SubvolumeId id) {
  btrfs_ioctl_vol_args_v2 arguments{};
  arguments.flags = BTRFS_SUBVOL_SPEC_BY_ID;
  arguments.subvolid = id;
  return call(topLevel, BTRFS_IOC_SNAP_DESTROY_V2, &arguments);
}

SysStatus commit(int fd) {
  __u64 transaction = 0;
  if (const SysStatus status = call(fd, BTRFS_IOC_START_SYNC, &transaction); !status) return status;
  return call(fd, BTRFS_IOC_WAIT_SYNC, &transaction);
}

SysStatus syncAndClean(int fd) { return call(fd, BTRFS_IOC_SYNC, nullptr); }

}  // namespace quillmark::os::btrfs
