// LinuxPosix: the file calls of this machine. Paths are name text; the kernel gets the bytes they stand for.
// Threads: thread-safe.
#pragma once

#include "platform/posix.h"

namespace quillmark::os {

class LinuxPosix final : public Posix {
 public:
  SysResult<int> open(const std::string& path, OpenFlags flags) override;
  void close(int fd) override;
  SysResult<std::size_t> read(int fd, std::span<std::byte> into) override;
  SysResult<std::size_t> pread(int fd, std::span<std::byte> into, std::uint64_t offset) override;
  SysResult<std::size_t> write(int fd, std::string_view bytes) override;
  SysStatus fsync(int fd) override;
  SysStatus fchmod(int fd, std::uint32_t mode) override;
  SysStatus fchown(int fd, std::uint32_t uid, std::uint32_t gid) override;
  SysStatus ftruncate(int fd, std::int64_t size) override;
  SysResult<FileStatus> fstat(int fd) override;
  SysStatus tryLockFile(int fd) override;

  SysResult<FileStatus> lstat(const std::string& path) override;
  SysStatus mkdir(const std::string& path, std::uint32_t mode) override;
  SysStatus rmdir(const std::string& path) override;
  SysStatus unlink(const std::string& path) override;
  SysStatus rename(const std::string& from, const std::string& to) override;
  SysStatus chmod(const std::string& path, std::uint32_t mode) override;
  SysStatus chown(const std::string& path, std::uint32_t uid, std::uint32_t gid) override;
  SysResult<std::vector<std::string>> list(const std::string& path) override;
};

}  // namespace quillmark::os
