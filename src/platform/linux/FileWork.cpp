#include "platform/linux/FileWork.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/limits.h>
#include <linux/openat2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "platform/NameText.h"

namespace quillmark::os {
namespace {

// A path with a NUL would reach the kernel cut short, as another path; one past the limit reaches nothing.
class PathBytes final {
 public:
  explicit PathBytes(const std::string& text) {
    // Text is at most four times as long as its bytes.
    if (text.size() / 4 >= PATH_MAX) {
      error_ = ENAMETOOLONG;
      return;
    }
    bytes_ = nameBytes(text);
    if (bytes_.find('\0') != std::string::npos) error_ = EINVAL;
  }
  [[nodiscard]] int error() const { return error_; }
  [[nodiscard]] const char* get() const { return bytes_.c_str(); }

 private:
  std::string bytes_;
  int error_ = 0;
};

class ComponentBytes final {
 public:
  explicit ComponentBytes(const std::string& text) : bytes_(nameBytes(text)) {}
  [[nodiscard]] int error() const {
    const bool single = !bytes_.empty() && bytes_ != "." && bytes_ != ".." &&
                        bytes_.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
    return single ? 0 : EINVAL;
  }
  [[nodiscard]] const char* get() const { return bytes_.c_str(); }

 private:
  std::string bytes_;
};

template <class Call>
auto withoutInterruption(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

template <class Call>
SysStatus status(Call call) {
  if (withoutInterruption(call) < 0) return Errno{errno};
  return {};
}

template <class Call>
SysStatus statusOf(const std::string& name, Call call) {
  const ComponentBytes bytes(name);
  if (bytes.error() != 0) return Errno{bytes.error()};
  return status([&] { return call(bytes.get()); });
}

template <class Call>
SysResult<int> descriptor(Call call) {
  const int fd = withoutInterruption(call);
  if (fd < 0) return Errno{errno};
  return fd;
}

// Without O_NOFOLLOW, which would have the kernel say ENOTDIR of a link: the resolution refuses links itself, as ELOOP.
SysResult<int> openWithin(int root, const char* path, std::uint64_t resolve) {
  open_how how{};
  how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | resolve;
  // EAGAIN: something was renamed meanwhile, and the kernel can't be sure.
  for (int attempt = 0;; ++attempt) {
    const SysResult<int> fd =
        descriptor([&] { return static_cast<int>(::syscall(SYS_openat2, root, path, &how, sizeof how)); });
    if (fd || fd.error() != EAGAIN || attempt == 32) return fd;
  }
}

FileType typeOf(mode_t mode) {
  if (S_ISREG(mode)) return FileType::regular;
  if (S_ISDIR(mode)) return FileType::directory;
  if (S_ISLNK(mode)) return FileType::symlink;
  return FileType::other;
}

FileTime timeFrom(const timespec& time) { return {.seconds = time.tv_sec, .nanoseconds = time.tv_nsec}; }

timespec timespecOf(FileTime time) { return {.tv_sec = time.seconds, .tv_nsec = time.nanoseconds}; }

StatRecord recordFrom(const struct stat& facts) {
  return {.type = typeOf(facts.st_mode),
          .mode = facts.st_mode & 07777,
          .uid = facts.st_uid,
          .gid = facts.st_gid,
          .size = facts.st_size,
          .links = facts.st_nlink,
          .device = facts.st_dev,
          .inode = facts.st_ino,
          .accessed = timeFrom(facts.st_atim),
          .modified = timeFrom(facts.st_mtim),
          .changed = timeFrom(facts.st_ctim)};
}

unsigned renameBits(RenameMode mode) {
  switch (mode) {
    case RenameMode::replace: return 0;
    case RenameMode::exclusive: return RENAME_NOREPLACE;
    case RenameMode::exchange: return RENAME_EXCHANGE;
  }
  return 0;
}

constexpr std::uint32_t flagsOfUse =
    FS_IMMUTABLE_FL | FS_APPEND_FL | FS_NODUMP_FL | FS_NOATIME_FL | FS_SYNC_FL | FS_DIRSYNC_FL;

SysResult<std::uint32_t> allFlags(int fd) {
  int all = 0;
  if (withoutInterruption([&] { return ::ioctl(fd, FS_IOC_GETFLAGS, &all); }) < 0) return Errno{errno};
  return static_cast<std::uint32_t>(all);
}

std::vector<ListedName> namesFrom(const char* buffer, std::size_t size) {
  std::vector<ListedName> names;
  for (std::size_t at = 0; at < size;) {
    const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.push_back({nameText(name), entry->d_off});
    at += entry->d_reclen;
  }
  return names;
}

}  // namespace

SysResult<int> LinuxFileWork::openDirectory(const std::string& path) {
  const PathBytes bytes(path);
  if (bytes.error() != 0) return Errno{bytes.error()};
  return descriptor([&] { return ::open(bytes.get(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
}

SysResult<StatRecord> LinuxFileWork::lstat(const std::string& path) {
  const PathBytes bytes(path);
  if (bytes.error() != 0) return Errno{bytes.error()};
  struct stat facts;
  if (::lstat(bytes.get(), &facts) < 0) return Errno{errno};
  return recordFrom(facts);
}

SysResult<int> LinuxFileWork::openChild(int parent, const std::string& name) {
  const ComponentBytes bytes(name);
  if (bytes.error() != 0) return Errno{bytes.error()};
  return openWithin(parent, bytes.get(), 0);
}

SysResult<int> LinuxFileWork::openBeneath(int root, const std::string& path) {
  const PathBytes bytes(path);
  if (bytes.error() != 0) return Errno{bytes.error()};
  return openWithin(root, bytes.get(), RESOLVE_NO_XDEV);
}

SysResult<int> LinuxFileWork::createFile(int parent, const std::string& name, std::uint32_t mode) {
  const ComponentBytes bytes(name);
  if (bytes.error() != 0) return Errno{bytes.error()};
  return descriptor(
      [&] { return ::openat(parent, bytes.get(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode); });
}

void LinuxFileWork::close(int fd) { ::close(fd); }

SysStatus LinuxFileWork::mkdirat(int parent, const std::string& name, std::uint32_t mode) {
  return statusOf(name, [&](const char* bytes) { return ::mkdirat(parent, bytes, mode); });
}

SysStatus LinuxFileWork::unlinkat(int parent, const std::string& name) {
  return statusOf(name, [&](const char* bytes) { return ::unlinkat(parent, bytes, 0); });
}

SysStatus LinuxFileWork::rmdirat(int parent, const std::string& name) {
  return statusOf(name, [&](const char* bytes) { return ::unlinkat(parent, bytes, AT_REMOVEDIR); });
}

SysStatus LinuxFileWork::rename(int fromParent, const std::string& from, int toParent, const std::string& to,
                                RenameMode mode) {
  const ComponentBytes target(to);
  if (target.error() != 0) return Errno{target.error()};
  return statusOf(from, [&](const char* bytes) {
    return ::renameat2(fromParent, bytes, toParent, target.get(), renameBits(mode));
  });
}

SysResult<StatRecord> LinuxFileWork::fstatat(int parent, const std::string& name) {
  struct stat facts;
  const SysStatus done = statusOf(
      name, [&](const char* bytes) { return ::fstatat(parent, bytes, &facts, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT); });
  if (!done) return Errno{done.error()};
  return recordFrom(facts);
}

SysResult<StatRecord> LinuxFileWork::fstat(int fd) {
  struct stat facts;
  if (::fstat(fd, &facts) < 0) return Errno{errno};
  return recordFrom(facts);
}

SysResult<std::vector<ListedName>> LinuxFileWork::readNames(int directory) {
  alignas(dirent64) std::array<char, std::size_t{16} << 10> buffer;
  for (;;) {
    const ssize_t size = withoutInterruption([&] { return ::getdents64(directory, buffer.data(), buffer.size()); });
    if (size < 0) return Errno{errno};
    std::vector<ListedName> names = namesFrom(buffer.data(), static_cast<std::size_t>(size));
    if (!names.empty() || size == 0) return names;
  }
}

SysStatus LinuxFileWork::seekNames(int directory, std::int64_t position) {
  if (::lseek(directory, position, SEEK_SET) < 0) return Errno{errno};
  return {};
}

SysResult<std::size_t> LinuxFileWork::write(int fd, std::string_view bytes) {
  const ssize_t count = ::write(fd, bytes.data(), bytes.size());
  if (count < 0) return Errno{errno};
  return static_cast<std::size_t>(count);
}

SysStatus LinuxFileWork::fchown(int fd, std::uint32_t uid, std::uint32_t gid) {
  return status([&] { return ::fchown(fd, uid, gid); });
}

SysStatus LinuxFileWork::fchmod(int fd, std::uint32_t mode) {
  return status([&] { return ::fchmod(fd, mode); });
}

SysStatus LinuxFileWork::futimens(int fd, FileTime accessed, FileTime modified) {
  const std::array times{timespecOf(accessed), timespecOf(modified)};
  return status([&] { return ::futimens(fd, times.data()); });
}

SysResult<std::uint32_t> LinuxFileWork::flags(int fd) {
  const SysResult<std::uint32_t> all = allFlags(fd);
  if (!all) return all;
  return *all & flagsOfUse;
}

SysStatus LinuxFileWork::setFlags(int fd, std::uint32_t flags) {
  const SysResult<std::uint32_t> all = allFlags(fd);
  if (!all) return Errno{all.error()};
  const int wanted = static_cast<int>((*all & ~flagsOfUse) | (flags & flagsOfUse));
  return status([&] { return ::ioctl(fd, FS_IOC_SETFLAGS, &wanted); });
}

}  // namespace quillmark::os
