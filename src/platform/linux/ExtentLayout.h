// ExtentLayout: where a file lies, by its extent map (FIEMAP, Documentation/filesystems/fiemap.rst).
// Threads: thread-compatible.
#pragma once

#include "base/UniqueFd.h"
#include "platform/DirectoryReader.h"

namespace quillmark::os {

class ExtentLayout final : public FileLayout {
 public:
  // A regular file; EINVAL for anything else.
  [[nodiscard]] static SysResult<std::unique_ptr<FileLayout>> open(int directory, const char* name);
  [[nodiscard]] static SysResult<std::unique_ptr<FileLayout>> of(UniqueFd fd);

  std::int64_t size() const override { return size_; }
  std::int64_t changedNS() const override { return changedNS_; }
  // A hole lies at ~0. ENODATA for what has no place of its own on the device, or none yet.
  SysResult<Run> runAt(std::int64_t offset, std::int64_t length) override;

 private:
  ExtentLayout(UniqueFd fd, std::int64_t size, std::int64_t changedNS)
      : fd_(std::move(fd)), size_(size), changedNS_(changedNS) {}

  const UniqueFd fd_;
  const std::int64_t size_;
  const std::int64_t changedNS_;
};

}  // namespace quillmark::os
