// LinuxOpenDirectory: one directory of a tree, read by its entries.
// Threads: thread-compatible.
#pragma once

#include <linux/stat.h>
#include <sys/stat.h>

#include <optional>

#include "base/UniqueFd.h"
#include "platform/DirectoryReader.h"
#include "platform/linux/TreeSearch.h"

namespace quillmark::os {

// What is the same all over a tree.
struct TreeDevice {
  std::uint32_t major = 0;
  std::uint32_t minor = 0;
  bool isBtrfs = false;

  [[nodiscard]] bool contains(const struct statx& status) const {
    return status.stx_dev_major == major && status.stx_dev_minor == minor;
  }
};

// The facts of objects of one tree.
class FactReader final {
 public:
  explicit FactReader(const TreeDevice& device) : device_(device) {}

  // Of an entry, which a link is itself. A mount is told by its kind alone, without asking what is mounted: of what is no
  // plain file by the hint (getdents64(2)), of DT_UNKNOWN too.
  [[nodiscard]] SysResult<FileFacts> ofEntry(int directory, const char* name, unsigned char kind);
  // Of the open object itself, of whatever device.
  [[nodiscard]] SysResult<FileFacts> ofRoot(int fd, const struct statx& status);

 private:
  // `fd` and `name` as for statx(2); `searched` is a descriptor of the same subvolume.
  [[nodiscard]] SysResult<FileFacts> complete(const struct statx& status, int fd, const char* name, int searched);
  [[nodiscard]] bool addBtrfsFacts(FileFacts& facts, std::uint64_t number, int searched);

  const TreeDevice device_;
  std::optional<btrfs::TreeSearch> search_;
};

class LinuxOpenDirectory final : public OpenDirectory {
 public:
  LinuxOpenDirectory(UniqueFd fd, const TreeDevice& device);
  ~LinuxOpenDirectory() override;

  SysResult<bool> readRecords(DirectoryRecords& into) override;
  SysResult<std::vector<std::string>> readNames() override;
  SysResult<FileFacts> lstat(const std::string& name) override;
  SysResult<std::uint64_t> generationOf(const std::string& name) override;
  SysResult<std::unique_ptr<FileLayout>> layoutOf(const std::string& name) override;

 private:
  struct Entry {
    const char* name;
    unsigned char kind;
  };
  // Null at the end.
  [[nodiscard]] SysResult<const Entry*> next();
  // The bytes of one name; empty for text that is more or less than one.
  [[nodiscard]] static std::string bytesOf(const std::string& name);

  const UniqueFd fd_;
  FactReader facts_;
  const std::unique_ptr<std::byte[]> buffer_;
  std::size_t filled_ = 0;
  std::size_t at_ = 0;
  std::size_t before_ = 0;  // where the last entry begins
  Entry entry_{};
  std::string text_;
};

}  // namespace quillmark::os
