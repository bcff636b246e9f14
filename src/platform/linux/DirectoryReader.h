// LinuxDirectoryReader: trees as openat2(2), getdents64(2) and statx(2) give them, with btrfs asked for what those don't
// tell; read-only subvolumes as a whole.
//
// Identity: on btrfs of inode number and inode generation, elsewhere of the file handle (name_to_handle_at(2)).
// Generation: on btrfs the newest of the file's extents, elsewhere none.
// Threads: thread-safe.
#pragma once

#include "platform/DirectoryReader.h"

namespace quillmark::os {

class LinuxDirectoryReader final : public DirectoryReader {
 public:
  SysResult<std::unique_ptr<OpenTree>> openTree(const std::string& root) override;
  SysResult<std::unique_ptr<OpenTree>> openItem(int fd) override;
  unsigned processorCount() override;
  std::uint64_t memorySize() override;
  std::unique_ptr<LowPriority> lowerPriority() override;
};

}  // namespace quillmark::os
