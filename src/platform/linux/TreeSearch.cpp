#include "platform/linux/TreeSearch.h"

#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

namespace quillmark::os::btrfs {
namespace {

// No item is longer than the largest node.
constexpr std::size_t longestItem = 64 * 1024 + sizeof(btrfs_ioctl_search_header);

btrfs_ioctl_search_key keyOf(std::uint64_t tree, TreeKey first, TreeKey last) {
  btrfs_ioctl_search_key key{};
  key.tree_id = tree;
  key.min_objectid = first.objectId, key.min_type = first.type, key.min_offset = first.offset;
  key.max_objectid = last.objectId, key.max_type = last.type, key.max_offset = last.offset;
  key.max_transid = ~0ull;
  return key;
}

}  // namespace

TreeSearch::TreeSearch(std::size_t bufferSize)
    : bufferSize_(bufferSize),
      memory_(std::make_unique_for_overwrite<std::byte[]>(sizeof(btrfs_ioctl_search_args_v2) + bufferSize)) {}

TreeSearch::~TreeSearch() = default;

void TreeSearch::begin(std::uint64_t tree, const Step& first, TreeKey last) {
  reinterpret_cast<btrfs_ioctl_search_args_v2*>(memory_.get())->key = keyOf(tree, first.from, last);
  most_ = first.most;
}

SysResult<std::uint32_t> TreeSearch::fetch(int fd) {
  auto* arguments = reinterpret_cast<btrfs_ioctl_search_args_v2*>(memory_.get());
  arguments->key.nr_items = most_;
  arguments->buf_size = bufferSize_;
  if (::ioctl(fd, BTRFS_IOC_TREE_SEARCH_V2, arguments) < 0) return Errno{errno};
  return arguments->key.nr_items;
}

bool TreeSearch::mayFollow(std::uint32_t count, std::size_t used) const {
  // Had there been another item, it would have fitted.
  return count == most_ || used + longestItem > bufferSize_;
}

bool TreeSearch::advance(const Step& step) {
  auto& key = reinterpret_cast<btrfs_ioctl_search_args_v2*>(memory_.get())->key;
  key.min_objectid = step.from.objectId;
  key.min_type = step.from.type;
  key.min_offset = step.from.offset;
  most_ = step.most;
  return key.min_objectid != 0 && key.min_objectid <= key.max_objectid;
}

TreeSearch::Step TreeSearch::behind(TreeKey key) {
  if (++key.offset != 0) return {key};
  if (key.type++ < 255) return {key};
  return {{key.objectId + 1, 0, 0}};
}

const std::byte* TreeSearch::items() const {
  return reinterpret_cast<const std::byte*>(reinterpret_cast<btrfs_ioctl_search_args_v2*>(memory_.get())->buf);
}

SysResult<TreeKey> TreeSearch::firstKey(int fd, std::uint64_t tree, TreeKey first, TreeKey last) {
  auto* arguments = reinterpret_cast<btrfs_ioctl_search_args_v2*>(memory_.get());
  arguments->key = keyOf(tree, first, last);
  arguments->key.nr_items = 1;
  arguments->buf_size = bufferSize_;
  if (::ioctl(fd, BTRFS_IOC_TREE_SEARCH_V2, arguments) < 0) return Errno{errno};
  if (arguments->key.nr_items == 0) return Errno{ENOENT};
  btrfs_ioctl_search_header header;
  std::memcpy(&header, arguments->buf, sizeof header);
  return TreeKey{header.objectid, header.type, header.offset};
}

}  // namespace quillmark::os::btrfs
