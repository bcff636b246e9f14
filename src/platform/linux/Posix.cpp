#include "platform/linux/Posix.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "platform/NameText.h"

namespace quillmark::os {
namespace {

// A path with a NUL would reach the kernel cut short, as another path.
class PathBytes final {
 public:
  explicit PathBytes(const std::string& text) : bytes_(nameBytes(text)) {}
  [[nodiscard]] bool usable() const { return bytes_.find('\0') == std::string::npos; }
  [[nodiscard]] const char* get() const { return bytes_.c_str(); }

 private:
  std::string bytes_;
};

template <class Call>
int withoutInterruption(Call call) {
  for (;;) {
    const int result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

template <class Call>
SysStatus status(Call call) {
  if (withoutInterruption(call) < 0) return Errno{errno};
  return {};
}

template <class Call>
SysStatus statusOf(const std::string& path, Call call) {
  const PathBytes bytes(path);
  if (!bytes.usable()) return Errno{EINVAL};
  return status([&] { return call(bytes.get()); });
}

Date dateOf(const timespec& time) {
  return Date::from1970(static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9);
}

FileType typeOf(mode_t mode) {
  if (S_ISREG(mode)) return FileType::regular;
  if (S_ISDIR(mode)) return FileType::directory;
  if (S_ISLNK(mode)) return FileType::symlink;
  return FileType::other;
}

FileStatus statusFrom(const struct stat& facts) {
  return {.type = typeOf(facts.st_mode),
          .mode = facts.st_mode & 07777,
          .uid = facts.st_uid,
          .gid = facts.st_gid,
          .size = facts.st_size,
          .device = facts.st_dev,
          .inode = facts.st_ino,
          .modified = dateOf(facts.st_mtim),
          .changed = dateOf(facts.st_ctim)};
}

int openBits(const OpenFlags& flags) {
  int bits = O_CLOEXEC | O_NOCTTY;
  bits |= flags.write ? (flags.read ? O_RDWR : O_WRONLY) : O_RDONLY;
  if (flags.append) bits |= O_APPEND;
  if (flags.create) bits |= O_CREAT;
  if (flags.exclusive) bits |= O_EXCL;
  if (flags.truncate) bits |= O_TRUNC;
  if (flags.noFollow) bits |= O_NOFOLLOW;
  if (flags.directory) bits |= O_DIRECTORY;
  return bits;
}

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

}  // namespace

SysResult<int> LinuxPosix::open(const std::string& path, OpenFlags flags) {
  const PathBytes bytes(path);
  if (!bytes.usable()) return Errno{EINVAL};
  const int fd = withoutInterruption([&] { return ::open(bytes.get(), openBits(flags), flags.mode); });
  if (fd < 0) return Errno{errno};
  return fd;
}

void LinuxPosix::close(int fd) { ::close(fd); }

SysResult<std::size_t> LinuxPosix::read(int fd, std::span<std::byte> into) {
  const ssize_t count = ::read(fd, into.data(), into.size());
  if (count < 0) return Errno{errno};
  return static_cast<std::size_t>(count);
}

SysResult<std::size_t> LinuxPosix::pread(int fd, std::span<std::byte> into, std::uint64_t offset) {
  const ssize_t count = ::pread(fd, into.data(), into.size(), static_cast<off_t>(offset));
  if (count < 0) return Errno{errno};
  return static_cast<std::size_t>(count);
}

SysResult<std::size_t> LinuxPosix::write(int fd, std::string_view bytes) {
  const ssize_t count = ::write(fd, bytes.data(), bytes.size());
  if (count < 0) return Errno{errno};
  return static_cast<std::size_t>(count);
}

SysStatus LinuxPosix::fsync(int fd) {
  return status([&] { return ::fsync(fd); });
}

SysStatus LinuxPosix::fchmod(int fd, std::uint32_t mode) {
  return status([&] { return ::fchmod(fd, mode); });
}

SysStatus LinuxPosix::fchown(int fd, std::uint32_t uid, std::uint32_t gid) {
  return status([&] { return ::fchown(fd, uid, gid); });
}

SysStatus LinuxPosix::ftruncate(int fd, std::int64_t size) {
  return status([&] { return ::ftruncate(fd, size); });
}

SysResult<FileStatus> LinuxPosix::fstat(int fd) {
  struct stat facts;
  if (::fstat(fd, &facts) < 0) return Errno{errno};
  return statusFrom(facts);
}

SysStatus LinuxPosix::tryLockFile(int fd) {
  return status([&] { return ::flock(fd, LOCK_EX | LOCK_NB); });
}

SysResult<FileStatus> LinuxPosix::lstat(const std::string& path) {
  struct stat facts;
  const SysStatus done = statusOf(path, [&](const char* bytes) { return ::lstat(bytes, &facts); });
  if (!done) return Errno{done.error()};
  return statusFrom(facts);
}

SysStatus LinuxPosix::mkdir(const std::string& path, std::uint32_t mode) {
  return statusOf(path, [&](const char* bytes) { return ::mkdir(bytes, mode); });
}

SysStatus LinuxPosix::rmdir(const std::string& path) {
  return statusOf(path, [](const char* bytes) { return ::rmdir(bytes); });
}

SysStatus LinuxPosix::unlink(const std::string& path) {
  return statusOf(path, [](const char* bytes) { return ::unlink(bytes); });
}

SysStatus LinuxPosix::rename(const std::string& from, const std::string& to) {
  const PathBytes target(to);
  if (!target.usable()) return Errno{EINVAL};
  return statusOf(from, [&](const char* bytes) { return ::rename(bytes, target.get()); });
}

SysStatus LinuxPosix::chmod(const std::string& path, std::uint32_t mode) {
  return statusOf(path, [&](const char* bytes) { return ::chmod(bytes, mode); });
}

SysStatus LinuxPosix::chown(const std::string& path, std::uint32_t uid, std::uint32_t gid) {
  return statusOf(path, [&](const char* bytes) { return ::chown(bytes, uid, gid); });
}

SysResult<std::vector<std::string>> LinuxPosix::list(const std::string& path) {
  const PathBytes bytes(path);
  if (!bytes.usable()) return Errno{EINVAL};
  const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(bytes.get()));
  if (!directory) return Errno{errno};
  std::vector<std::string> names;
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(directory.get());
    if (!entry) break;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.push_back(nameText(name));
  }
  if (errno != 0) return Errno{errno};
  return names;
}

}  // namespace quillmark::os
