// TreeSearch: reads the items of a btrfs tree in bulk (BTRFS_IOC_TREE_SEARCH_V2), with one buffer for all its searches.
// Threads: thread-compatible. Errors: errno. Needs CAP_SYS_ADMIN.
#pragma once

#include <linux/btrfs.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

#include "base/FunctionRef.h"
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

  // Where to go on, and with how many items at most.
  struct Step {
    TreeKey from;
    std::uint32_t most = allItems;
  };
  static constexpr std::uint32_t allItems = ~0u;
  // Behind this key with all that fits; object 0 behind the last key of all.
  [[nodiscard]] static Step behind(TreeKey key);

  // As searchTree(). Tree 0 is the descriptor's own. Templates, because a whole tree has millions of items.
  template <class Use>
  [[nodiscard]] SysStatus run(int fd, std::uint64_t tree, TreeKey first, TreeKey last, Use use) {
    return run(fd, tree, Step{first}, last, use, [](const TreeKey& key) { return behind(key); });
  }
  // After each call to the kernel, its last key tells where the next one begins: what isn't needed may be left out.
  template <class Use>
  [[nodiscard]] SysStatus run(int fd, std::uint64_t tree, const Step& first, TreeKey last, Use use,
                              FunctionRef<Step(const TreeKey&)> goOn);
  // The first key from this one on; ENOENT when there is none up to the last one.
  [[nodiscard]] SysResult<TreeKey> firstKey(int fd, std::uint64_t tree, TreeKey first, TreeKey last);

 private:
  void begin(std::uint64_t tree, const Step& first, TreeKey last);
  // How many items stand in the buffer now; none at the end.
  [[nodiscard]] SysResult<std::uint32_t> fetch(int fd);
  // False when no item follows the so many that used up so much of the buffer.
  [[nodiscard]] bool mayFollow(std::uint32_t count, std::size_t used) const;
  // False past the last key that is asked for.
  [[nodiscard]] bool advance(const Step& step);
  [[nodiscard]] const std::byte* items() const;

  const std::size_t bufferSize_;
  const std::unique_ptr<std::byte[]> memory_;
  std::uint32_t most_ = allItems;
};

template <class Use>
SysStatus TreeSearch::run(int fd, std::uint64_t tree, const Step& first, TreeKey last, Use use,
                          FunctionRef<Step(const TreeKey&)> goOn) {
  begin(tree, first, last);
  btrfs_ioctl_search_header header{};
  for (bool isMore = true; isMore;) {
    const auto count = fetch(fd);
    if (!count) return Errno{count.error()};
    if (*count == 0) return {};
    const std::byte* at = items();
    for (std::uint32_t i = 0; i < *count; ++i) {
      std::memcpy(&header, at, sizeof header);
      at += sizeof header;
      if (!use(TreeKey{header.objectid, header.type, header.offset}, std::span(at, header.len))) return {};
      at += header.len;
    }
    isMore = mayFollow(*count, static_cast<std::size_t>(at - items())) &&
             advance(goOn(TreeKey{header.objectid, header.type, header.offset}));
  }
  return {};
}

}  // namespace quillmark::os::btrfs
