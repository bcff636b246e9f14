// FailingFiles: the file calls of a simulated process, some of whose stores can't be read, or not be written.
// Ownership: borrows the files, which must outlive it.
// Threads:   confined to the simulation's thread.
#pragma once

#include <cerrno>

#include "SimulatedMonthsCalls.h"
#include "platform/posix.h"

namespace quillmark::months {

class FailingFiles final : public Posix {
 public:
  FailingFiles(Posix& files, const Failures& failures) : files_(files), failures_(failures) {}

  SysResult<int> open(const std::string& path, OpenFlags flags) override {
    if (!flags.write && failures_.cannotRead.contains(nameIn(path))) return Errno{EIO};
    return files_.open(path, flags);
  }
  // Every store is replaced as a whole.
  SysStatus rename(const std::string& from, const std::string& to) override {
    if (failures_.cannotWrite.contains(nameIn(to))) return Errno{ENOSPC};
    return files_.rename(from, to);
  }

  void close(int fd) override { files_.close(fd); }
  SysResult<std::size_t> read(int fd, std::span<std::byte> into) override { return files_.read(fd, into); }
  SysResult<std::size_t> pread(int fd, std::span<std::byte> into, std::uint64_t offset) override {
    return files_.pread(fd, into, offset);
  }
  SysResult<std::size_t> write(int fd, std::string_view bytes) override { return files_.write(fd, bytes); }
  SysStatus fsync(int fd) override { return files_.fsync(fd); }
  SysStatus fchmod(int fd, std::uint32_t mode) override { return files_.fchmod(fd, mode); }
  SysStatus fchown(int fd, std::uint32_t uid, std::uint32_t gid) override { return files_.fchown(fd, uid, gid); }
  SysStatus ftruncate(int fd, std::int64_t size) override { return files_.ftruncate(fd, size); }
  SysResult<FileStatus> fstat(int fd) override { return files_.fstat(fd); }
  SysStatus tryLockFile(int fd) override { return files_.tryLockFile(fd); }
  SysResult<FileStatus> lstat(const std::string& path) override { return files_.lstat(path); }
  SysStatus mkdir(const std::string& path, std::uint32_t mode) override { return files_.mkdir(path, mode); }
  SysStatus rmdir(const std::string& path) override { return files_.rmdir(path); }
  SysStatus unlink(const std::string& path) override { return files_.unlink(path); }
  SysStatus chmod(const std::string& path, std::uint32_t mode) override { return files_.chmod(path, mode); }
  SysStatus chown(const std::string& path, std::uint32_t uid, std::uint32_t gid) override {
    return files_.chown(path, uid, gid);
  }
  SysResult<std::vector<std::string>> list(const std::string& path) override { return files_.list(path); }

 private:
  static std::string nameIn(const std::string& path) { return path.substr(path.rfind('/') + 1); }

  Posix& files_;
  const Failures& failures_;
};

}  // namespace quillmark::months
