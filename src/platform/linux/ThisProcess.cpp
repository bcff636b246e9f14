#include "platform/linux/ThisProcess.h"

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

namespace quillmark::os {
namespace {

constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

std::uint64_t fromLimit(rlim_t limit) { return limit == RLIM_INFINITY ? unlimited : limit; }
rlim_t toLimit(std::uint64_t limit) { return limit == unlimited ? RLIM_INFINITY : limit; }

}  // namespace

int LinuxThisProcess::pid() { return ::getpid(); }
std::uint32_t LinuxThisProcess::uid() { return ::getuid(); }
std::uint32_t LinuxThisProcess::effectiveUid() { return ::geteuid(); }
std::uint32_t LinuxThisProcess::gid() { return ::getgid(); }

SysResult<DescriptorLimit> LinuxThisProcess::descriptorLimit() {
  rlimit limit;
  if (::getrlimit(RLIMIT_NOFILE, &limit) < 0) return Errno{errno};
  return DescriptorLimit{.soft = fromLimit(limit.rlim_cur), .hard = fromLimit(limit.rlim_max)};
}

SysStatus LinuxThisProcess::setDescriptorLimit(DescriptorLimit limit) {
  const rlimit wanted{.rlim_cur = toLimit(limit.soft), .rlim_max = toLimit(limit.hard)};
  if (::setrlimit(RLIMIT_NOFILE, &wanted) < 0) return Errno{errno};
  return {};
}

void LinuxThisProcess::writeStandardError(std::string_view text) {
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}

void LinuxThisProcess::giveBackFreeMemory() {
#ifdef __GLIBC__
  ::malloc_trim(0);
#endif
}

}  // namespace quillmark::os
