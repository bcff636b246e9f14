#include "platform/linux/PeerProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace quillmark::os {
namespace {

// Whether a process still runs in the memory (proc_pid_mem(5)): absent when that can't be told. There is nothing at the
// address 0, which is an error as long as anything can be elsewhere, and the end of the file afterwards.
std::optional<bool> memoryLives(int memory) {
  char nothing;
  if (memory < 0) return std::nullopt;
  const ssize_t count = ::pread(memory, &nothing, 1, 0);
  if (count < 0 && errno != EIO) return std::nullopt;
  return count != 0;
}

}  // namespace

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
  UniqueFd memory(::openat(directory.get(), "mem", O_RDONLY | O_CLOEXEC));
  const std::optional<FileFacts> program = localFacts(directory.get(), "exe");
  // Alive after the directory was opened: it is this process's, not that of a later one with its number. And with the
  // memory of before the look at the program, which is thus the one that runs in it.
  if (!program || !lives() || memoryLives(memory.get()) == false) return std::nullopt;
  return Directory{std::move(directory), std::move(memory), program->stamp};
}

void LinuxPeerProcess::hold(Directory directory) {
  NativeLock lock(mutex_);
  if (!held_) held_.emplace(std::move(directory));
}

std::optional<FileStamp> LinuxPeerProcess::held() const {
  const Directory* directory = heldDirectory();
  return directory ? std::optional(directory->program) : std::nullopt;
}

bool LinuxPeerProcess::runsWhatIsHeld() const {
  const Directory* directory = heldDirectory();
  if (!directory) return false;
  if (const std::optional<bool> lives = memoryLives(directory->memory.get())) return *lives;
  // The directory of a process that has ended is empty.
  const std::optional<FileFacts> program = localFacts(directory->fd.get(), "exe");
  return program && program->stamp == directory->program;
}

UniqueFd LinuxPeerProcess::openProgram() const {
  const Directory* directory = heldDirectory();
  return UniqueFd(directory ? ::openat(directory->fd.get(), "exe", O_PATH | O_CLOEXEC) : -1);
}

std::string LinuxPeerProcess::read(const char* name, std::size_t limit) const {
  const Directory* directory = heldDirectory();
  const UniqueFd file(directory ? ::openat(directory->fd.get(), name, O_RDONLY | O_CLOEXEC) : -1);
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

// Set once and never changed: it stays where it is as long as this does.
const LinuxPeerProcess::Directory* LinuxPeerProcess::heldDirectory() const {
  NativeLock lock(mutex_);
  return held_ ? &*held_ : nullptr;
}

}  // namespace quillmark::os
