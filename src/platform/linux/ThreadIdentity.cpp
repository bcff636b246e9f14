#include "platform/linux/ThreadIdentity.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/openat2.h>
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string_view>

#include "platform/NameText.h"

namespace quillmark::os {
namespace {

constexpr gid_t unchanged = static_cast<gid_t>(-1);

SysStatus statusOf(long result) {
  if (result != 0) return Errno{errno};
  return {};
}

// Without the names that lead nowhere: else "//net/x" would count among what lies on "/", and hold that up with it.
std::string straightened(std::string_view path) {
  std::string straight;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    const std::string_view name = path.substr(at, end - at);
    if (!name.empty() && name != ".") straight.append("/").append(name);
    at = end + 1;
  }
  return straight.empty() ? "/" : straight;
}

// Never through the links of /proc, which lead past every directory on the way.
SysResult<int> openPath(int directory, const char* path, std::uint64_t flags, std::uint64_t resolve) {
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC | flags;
  how.resolve = RESOLVE_NO_MAGICLINKS | resolve;
  const long fd = ::syscall(SYS_openat2, directory, path, &how, sizeof how);
  if (fd < 0) return Errno{errno};
  return static_cast<int>(fd);
}

}  // namespace

LinuxThreadIdentity::LinuxThreadIdentity() : changes_(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {}

std::string LinuxThreadIdentity::volumeKey(const std::string& path) {
  NativeLock lock(mutex_);
  pollfd changes{changes_.get(), POLLPRI, 0};
  if (!table_ || ::poll(&changes, 1, 0) != 0) {
    if (auto table = MountTable::read()) table_ = std::move(*table);
  }
  if (!table_) return "/";
  const MountEntry* holder = table_->holder(straightened(path));
  return holder == nullptr ? "/" : holder->mountPoint;
}

std::optional<UserIdentity> LinuxThreadIdentity::userIdentity(std::uint32_t uid) {
  std::vector<char> buffer(16'384);
  passwd entry{};
  passwd* found = nullptr;
  while (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
    if (buffer.size() > 1u << 20) return std::nullopt;
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr) return std::nullopt;
  std::vector<gid_t> groups(64);
  int count = static_cast<int>(groups.size());
  while (::getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) {
    if (count > 65'536) return std::nullopt;  // more than the kernel takes
    groups.resize(static_cast<std::size_t>(count));
  }
  groups.resize(static_cast<std::size_t>(count));
  return UserIdentity{uid, entry.pw_gid, {groups.begin(), groups.end()}};
}

// Groups first: without root's rights they can't be set any more.
SysStatus LinuxThreadIdentity::assume(const UserIdentity& identity) {
  const std::vector<gid_t> groups(identity.groups.begin(), identity.groups.end());
  if (const SysStatus set = statusOf(::syscall(SYS_setgroups, groups.size(), groups.data())); !set) return set;
  if (const SysStatus set = statusOf(::syscall(SYS_setresgid, unchanged, identity.gid, unchanged)); !set) return set;
  return statusOf(::syscall(SYS_setresuid, unchanged, identity.uid, unchanged));
}

bool LinuxThreadIdentity::showsProcesses(const std::string& mountPoint) {
  NativeLock lock(mutex_);
  const MountEntry* entry = table_ ? table_->at(mountPoint) : nullptr;
  return entry != nullptr && entry->type == "proc";
}

// As a directory first: that is what makes an automounter mount.
SysResult<int> LinuxThreadIdentity::openVolume(const std::string& mountPoint) {
  if (!isNameText(mountPoint)) return Errno{ENOENT};
  if (showsProcesses(mountPoint)) return Errno{EACCES};
  const std::string bytes = nameBytes(mountPoint);
  auto fd = openPath(AT_FDCWD, bytes.c_str(), O_DIRECTORY, RESOLVE_NO_SYMLINKS);
  if (!fd && fd.error() == ENOTDIR) fd = openPath(AT_FDCWD, bytes.c_str(), O_NOFOLLOW, RESOLVE_NO_SYMLINKS);
  return fd;
}

SysResult<ThreadIdentity::Step> LinuxThreadIdentity::step(int directory, const std::string& name) {
  if (!isNameText(name)) return Errno{ENOENT};
  const std::string bytes = nameBytes(name);
  const bool isOne = !bytes.empty() && bytes != "." && bytes != ".." && bytes.find('/') == std::string::npos;
  if (!isOne) return Errno{EINVAL};
  const auto fd = openPath(directory, bytes.c_str(), O_NOFOLLOW, RESOLVE_BENEATH | RESOLVE_NO_XDEV);
  if (!fd) return Errno{fd.error()};
  UniqueFd item(*fd);
  char target[PATH_MAX];
  const ssize_t length = ::readlinkat(item.get(), "", target, sizeof target);
  if (length < 0 && errno != ENOENT && errno != EINVAL) return Errno{errno};
  Step step;
  if (length >= 0) step.link = nameText({target, static_cast<std::size_t>(length)});
  step.fd = item.release();
  return step;
}

// Asked by the system call itself: access(2) goes by the real ids, and the C library's faccessat guesses where the
// kernel is too old to know AT_EACCESS.
SysStatus LinuxThreadIdentity::permits(int fd, unsigned mode) {
  return statusOf(::syscall(SYS_faccessat2, fd, "", mode, AT_EACCESS | AT_EMPTY_PATH));
}

SysResult<int> LinuxThreadIdentity::duplicate(int fd) {
  const int second = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (second < 0) return Errno{errno};
  return second;
}

void LinuxThreadIdentity::close(int fd) { ::close(fd); }

}  // namespace quillmark::os
