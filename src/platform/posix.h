// Posix: the file calls of code that keeps something. Thin covers of the calls of the same names (man pages, section 2),
// so that a fault plan can stand between the logic and the disk.
// Ownership: descriptors are the caller's; hold them in an OpenFile.
// Threads:   thread-safe.
// Errors:    errno, untouched. EINTR reaches the caller of read, pread and write only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Date.h"
#include "base/SysResult.h"

namespace quillmark {

enum class FileType { regular, directory, symlink, other };

struct FileStatus {
  FileType type = FileType::other;
  std::uint32_t mode = 0;  // permission bits, setuid, setgid and sticky
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  std::int64_t size = 0;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  Date modified;
  Date changed;
};

// How open() opens. Every descriptor is close-on-exec.
struct OpenFlags {
  bool read = false;
  bool write = false;
  bool append = false;
  bool create = false;
  bool exclusive = false;
  bool truncate = false;
  bool noFollow = false;
  bool directory = false;
  std::uint32_t mode = 0600;  // of a file that is made, less the umask
};

class Posix {
 public:
  virtual ~Posix() = default;

  [[nodiscard]] virtual SysResult<int> open(const std::string& path, OpenFlags flags) = 0;
  virtual void close(int fd) = 0;
  [[nodiscard]] virtual SysResult<std::size_t> read(int fd, std::span<std::byte> into) = 0;
  // Reads from the offset on and leaves the descriptor's own position alone.
  [[nodiscard]] virtual SysResult<std::size_t> pread(int fd, std::span<std::byte> into, std::uint64_t offset) = 0;
  // May write less than asked.
  [[nodiscard]] virtual SysResult<std::size_t> write(int fd, std::string_view bytes) = 0;
  [[nodiscard]] virtual SysStatus fsync(int fd) = 0;
  [[nodiscard]] virtual SysStatus fchmod(int fd, std::uint32_t mode) = 0;
  [[nodiscard]] virtual SysStatus fchown(int fd, std::uint32_t uid, std::uint32_t gid) = 0;
  [[nodiscard]] virtual SysStatus ftruncate(int fd, std::int64_t size) = 0;
  [[nodiscard]] virtual SysResult<FileStatus> fstat(int fd) = 0;
  // Exclusive whole-file lock (flock(2)) that dies with the descriptor; EWOULDBLOCK when another holds it.
  [[nodiscard]] virtual SysStatus tryLockFile(int fd) = 0;

  [[nodiscard]] virtual SysResult<FileStatus> lstat(const std::string& path) = 0;
  [[nodiscard]] virtual SysStatus mkdir(const std::string& path, std::uint32_t mode) = 0;
  [[nodiscard]] virtual SysStatus rmdir(const std::string& path) = 0;
  [[nodiscard]] virtual SysStatus unlink(const std::string& path) = 0;
  [[nodiscard]] virtual SysStatus rename(const std::string& from, const std::string& to) = 0;
  [[nodiscard]] virtual SysStatus chmod(const std::string& path, std::uint32_t mode) = 0;
  [[nodiscard]] virtual SysStatus chown(const std::string& path, std::uint32_t uid, std::uint32_t gid) = 0;
  // Names without "." and "..", in no order.
  [[nodiscard]] virtual SysResult<std::vector<std::string>> list(const std::string& path) = 0;
};

// An open file of a Posix, closed with its owner.
class OpenFile final {
 public:
  OpenFile(Posix& posix, int fd) : posix_(&posix), fd_(fd) {}
  OpenFile(OpenFile&& other) noexcept : posix_(other.posix_), fd_(std::exchange(other.fd_, -1)) {}
  OpenFile& operator=(OpenFile&&) = delete;
  ~OpenFile() { close(); }
  [[nodiscard]] int get() const { return fd_; }
  void close() {
    if (fd_ >= 0) posix_->close(std::exchange(fd_, -1));
  }

 private:
  Posix* posix_;
  int fd_;
};

}  // namespace quillmark
