#include "platform/linux/PeerProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace quillmark::os {

std::optional<FileFacts> localFacts(int directory, const char* name) {
  struct statx facts;
  const int flags = AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT | (*name == '\0' ? AT_EMPTY_PATH : 0);
  if (::statx(directory, name, flags, STATX_BASIC_STATS | STATX_MNT_ID, &facts) != 0) return std::nullopt;
  if ((facts.stx_mask & STATX_BASIC_STATS) != STATX_BASIC_STATS) return std::nullopt;
  return FileFacts{.stamp = {.deviceMajor = facts.stx_dev_major,
                             .deviceMinor = facts.stx_dev_minor,
                             .inode = facts.stx_ino,
                             .changedSeconds = facts.stx_ctime.tv_sec,
                             .changedNanoseconds = facts.stx_ctime.tv_nsec},
                   .mode = facts.stx_mode,
                   .uid = facts.stx_uid,
                   .size = facts.stx_size,
                   .mountId = facts.stx_mnt_id};
}

std::optional<LinuxPeerProcess::Directory> LinuxPeerProcess::look() const {
  if (pid_ <= 0 || !pidfd_.valid()) return std::nullopt;
  UniqueFd directory(::open(("/proc/" + std::to_string(pid_)).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid()) return std::nullopt;
  const std::optional<FileFacts> program = localFacts(directory.get(), "exe");
  // Alive after the directory was opened: it is this process's, not that of a later one with its number.
  if (!program || !lives()) return std::nullopt;
  return Directory{std::move(directory), program->stamp};
}

void LinuxPeerProcess::hold(Directory directory) {
  NativeLock lock(mutex_);
  if (!held_) held_.emplace(std::move(directory));
}

std::optional<FileStamp> LinuxPeerProcess::held() const {
  NativeLock lock(mutex_);
  return held_ ? std::optional(held_->program) : std::nullopt;
}

bool LinuxPeerProcess::runsWhatIsHeld() const {
  const std::optional<FileStamp> expected = held();
  if (!expected) return false;
  // The directory of a process that has ended is empty.
  const std::optional<FileFacts> program = localFacts(directory(), "exe");
  return program && program->stamp == *expected;
}

UniqueFd LinuxPeerProcess::openProgram() const {
  const int from = directory();
  return UniqueFd(from < 0 ? -1 : ::openat(from, "exe", O_PATH | O_CLOEXEC));
}

std::string LinuxPeerProcess::read(const char* name, std::size_t limit) const {
  const int from = directory();
  const UniqueFd file(from < 0 ? -1 : ::openat(from, name, O_RDONLY | O_CLOEXEC));
  std::string text;
  char buffer[16 * 1024];
  while (file.valid() && text.size() < limit) {
    const ssize_t count = ::read(file.get(), buffer, sizeof buffer);
    if (count <= 0) break;
    text.append(buffer, static_cast<std::size_t>(count));
  }
  return text;
}

bool LinuxPeerProcess::lives() const {
  pollfd ended{pidfd_.get(), POLLIN, 0};
  return pidfd_.valid() && ::poll(&ended, 1, 0) == 0;
}

int LinuxPeerProcess::directory() const {
  NativeLock lock(mutex_);
  return held_ ? held_->fd.get() : -1;
}

}  // namespace quillmark::os
