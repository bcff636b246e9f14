// ForwardingPosix: the calls of another; whoever disturbs some of them overrides those.
// Ownership: borrows the other, which must outlive it.
#pragma once

#include "platform/posix.h"

namespace quillmark {

class ForwardingPosix : public Posix {
 public:
  explicit ForwardingPosix(Posix& inner) : inner_(inner) {}

  SysResult<int> open(const std::string& path, OpenFlags flags) override { return inner_.open(path, flags); }
  void close(int fd) override { inner_.close(fd); }
  SysResult<std::size_t> read(int fd, std::span<std::byte> into) override { return inner_.read(fd, into); }
  SysResult<std::size_t> pread(int fd, std::span<std::byte> into, std::uint64_t offset) override {
    return inner_.pread(fd, into, offset);
  }
  SysResult<std::size_t> write(int fd, std::string_view bytes) override { return inner_.write(fd, bytes); }
  SysStatus fsync(int fd) override { return inner_.fsync(fd); }
  SysStatus fchmod(int fd, std::uint32_t mode) override { return inner_.fchmod(fd, mode); }
  SysStatus fchown(int fd, std::uint32_t uid, std::uint32_t gid) override { return inner_.fchown(fd, uid, gid); }
  SysStatus ftruncate(int fd, std::int64_t size) override { return inner_.ftruncate(fd, size); }
  SysResult<FileStatus> fstat(int fd) override { return inner_.fstat(fd); }
  SysStatus tryLockFile(int fd) override { return inner_.tryLockFile(fd); }
  SysResult<FileStatus> lstat(const std::string& path) override { return inner_.lstat(path); }
  SysStatus mkdir(const std::string& path, std::uint32_t mode) override { return inner_.mkdir(path, mode); }
  SysStatus rmdir(const std::string& path) override { return inner_.rmdir(path); }
  SysStatus unlink(const std::string& path) override { return inner_.unlink(path); }
  SysStatus rename(const std::string& from, const std::string& to) override { return inner_.rename(from, to); }
  SysStatus chmod(const std::string& path, std::uint32_t mode) override { return inner_.chmod(path, mode); }
  SysStatus chown(const std::string& path, std::uint32_t uid, std::uint32_t gid) override {
    return inner_.chown(path, uid, gid);
  }
  SysResult<std::vector<std::string>> list(const std::string& path) override { return inner_.list(path); }

 protected:
  [[nodiscard]] Posix& inner() { return inner_; }

 private:
  Posix& inner_;
};

}  // namespace quillmark
