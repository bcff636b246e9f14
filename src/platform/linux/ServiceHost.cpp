#include "platform/linux/ServiceHost.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>

#include "base/Error.h"
#include "platform/Files.h"
#include "platform/linux/Posix.h"

namespace quillmark::os {
namespace {

constexpr int leastMajor = 6;
constexpr int leastMinor = 8;

sigset_t quitSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}

Error refusal(std::string text) { return Error(std::string(posixErrorDomain), ENOTSUP, std::move(text)); }

}  // namespace

void requireHost() {
  if (::geteuid() != 0) throw refusal("The helper has to run as root.");
  utsname host{};
  int major = 0, minor = 0;
  if (::uname(&host) != 0 || std::sscanf(host.release, "%d.%d", &major, &minor) != 2) {
    throw refusal("The helper can't tell which kernel it runs on.");
  }
  if (major < leastMajor || (major == leastMajor && minor < leastMinor)) {
    throw refusal(
        fmt::format("The helper needs Linux {}.{} or newer; this is {}.", leastMajor, leastMinor, host.release));
  }
}

// A process that a killed instance was just starting holds its lock until it has become another program.
constexpr int lockTries = 25;
constexpr unsigned lockPauseMicroseconds = 20'000;

std::optional<UniqueFd> lockInstance(const std::string& directory) {
  LinuxPosix posix;
  createDirectories(posix, directory, 0700);
  const std::string path = directory + "/helper.lock";
  UniqueFd lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock.valid()) throw posixError("open", path, errno);
  for (int tries = 0; ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0; ++tries) {
    if (errno != EWOULDBLOCK) throw posixError("flock", path, errno);
    if (tries == lockTries) return std::nullopt;
    ::usleep(lockPauseMicroseconds);
  }
  return lock;
}

bool sendStandardErrorTo(const std::string& file) {
  if (::isatty(STDERR_FILENO)) return false;
  struct stat current {
  }, wanted{};
  const bool hasFile = ::stat(file.c_str(), &wanted) == 0;
  if (hasFile && ::fstat(STDERR_FILENO, &current) == 0 && current.st_dev == wanted.st_dev &&
      current.st_ino == wanted.st_ino) {
    return false;
  }
  const UniqueFd log(::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640));
  if (!log.valid()) return false;
  return ::dup2(log.get(), STDERR_FILENO) == STDERR_FILENO;
}

std::optional<UniqueFd> activatedSocket() {
  if (::sd_listen_fds(1) != 1) return std::nullopt;  // makes them close-on-exec
  UniqueFd socket(SD_LISTEN_FDS_START);
  if (::sd_is_socket_unix(socket.get(), SOCK_STREAM, 1, nullptr, 0) <= 0) return std::nullopt;
  // A blocking one would hold the loop that accepts until somebody else connects.
  const int flags = ::fcntl(socket.get(), F_GETFL);
  if (flags < 0 || ::fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK) != 0) return std::nullopt;
  return socket;
}

void prepareSignals() {
  const sigset_t quit = quitSignals();
  ::pthread_sigmask(SIG_BLOCK, &quit, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

void waitForQuitSignal() {
  const sigset_t quit = quitSignals();
  int number = 0;
  while (::sigwait(&quit, &number) != 0) {
  }
}

std::string programDirectory() {
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0) return ".";
  return parentDirectory(std::string(path, static_cast<std::size_t>(length)));
}

}  // namespace quillmark::os
