// TreeSearch: reads the items of a btrfs tree in bulk (BTRFS_IOC_TREE_SEARCH_V2), with one buffer for all its searches.
// Threads: thread-compatible. Errors: errno. Needs CAP_SYS_ADMIN.
#pragma once

#include <linux/btrfs.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

#include "base/SysResult.h"
#include "platform/linux/BtrfsCalls.h"

namespace quillmark::os::btrfs {

class TreeSearch final {
 public:
  // Larger ones cost more than they save: the kernel touches what is left of the buffer for every leaf it reads.
  static constexpr std::size_t bulkBuffer = 256 * 1024;
  // Takes any item with room for what belongs to one small file.
  static constexpr std::size_t smallBuffer = 80 * 1024;

  explicit TreeSearch(std::size_t bufferSize);
  ~TreeSearch();

  // As searchTree(). Tree 0 is the descriptor's own. A template, because a whole tree has millions of items.
  template <class Use>
  [[nodiscard]] SysStatus run(int fd, std::uint64_t tree, TreeKey first, TreeKey last, Use use);
  // The first key from this one on; ENOENT when there is none up to the last one.
  [[nodiscard]] SysResult<TreeKey> firstKey(int fd, std::uint64_t tree, TreeKey first, TreeKey last);

 private:
  void begin(std::uint64_t tree, TreeKey first, TreeKey last);
  // How many items stand in the buffer now; none at the end.
  [[nodiscard]] SysResult<std::uint32_t> fetch(int fd);
  // False when nothing follows the last item, behind which the buffer was used so far.
  [[nodiscard]] bool advance(const btrfs_ioctl_search_header& last, std::size_t used);
  [[nodiscard]] const std::byte* items() const;

  const std::size_t bufferSize_;
  const std::unique_ptr<std::byte[]> memory_;
};

template <class Use>
SysStatus TreeSearch::run(int fd, std::uint64_t tree, TreeKey first, TreeKey last, Use use) {
  begin(tree, first, last);
  btrfs_ioctl_search_header header{};
  const std::byte* at = nullptr;
  do {
    const auto count = fetch(fd);
    if (!count) return Errno{count.error()};
    if (*count == 0) return {};
    at = items();
    for (std::uint32_t i = 0; i < *count; ++i) {
      std::memcpy(&header, at, sizeof header);
      at += sizeof header;
      if (!use(TreeKey{header.objectid, header.type, header.offset}, std::span(at, header.len))) return {};
      at += header.len;
    }
  } while (advance(header, static_cast<std::size_t>(at - items())));
  return {};
}

}  // namespace quillmark::os::btrfs
