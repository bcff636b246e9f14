// LinuxPeerProcess: one connected process and the program that it runs, held so that neither a reused process ID nor
// another program can pass as it.
// Ownership: owns a pidfd and, once held, two descriptors of the process's directory in /proc.
// Threads:   thread-safe.
#pragma once

#include <cstdint>
#include <optional>

#include "base/ThreadSafety.h"
#include "base/UniqueFd.h"
#include "platform/Transport.h"
#include "platform/linux/Threads.h"

namespace quillmark::os {

// Which file it is, and in which state of its: whatever is written to it, or done to its name or mode, makes another one.
struct FileStamp {
  std::uint32_t deviceMajor = 0, deviceMinor = 0;
  std::uint64_t inode = 0;
  std::int64_t changedSeconds = 0;
  std::uint32_t changedNanoseconds = 0;
  auto operator<=>(const FileStamp&) const = default;
};

struct FileFacts {
  FileStamp stamp;
  std::uint32_t mode = 0;  // type and permission bits
  std::uint32_t uid = 0;
  std::uint64_t size = 0;
  std::uint64_t mountId = 0;
};

// What statx(2) tells without asking a remote file system or a daemon. An empty name means the descriptor itself; links
// are followed.
[[nodiscard]] std::optional<FileFacts> localFacts(int directory, const char* name);

class LinuxPeerProcess final : public PeerProcess {
 public:
  // A hold on a process while it runs one program.
  struct Directory {
    UniqueFd fd;  // its directory of /proc
    // Its memory, which ends when it runs another program or none: asked at a third of the price of looking the program
    // up. Nothing is read there. Invalid where the kernel hands it to nobody (ptrace_scope 3 of Yama).
    UniqueFd memory;
    FileStamp program;
  };

  LinuxPeerProcess(int pid, UniqueFd pidfd) : pid_(pid), pidfd_(std::move(pidfd)) {}

  // Absent when the process is gone or runs no program. May wait where the program lies on a remote file system.
  [[nodiscard]] std::optional<Directory> look() const;
  // From here on only this program counts.
  void hold(Directory directory) EXCLUDES(mutex_);
  // False unless a program is held and the process has run no other since.
  [[nodiscard]] bool runsWhatIsHeld() const EXCLUDES(mutex_);
  [[nodiscard]] std::optional<FileStamp> held() const EXCLUDES(mutex_);
  // The program's file, opened O_PATH; invalid when the process is gone.
  [[nodiscard]] UniqueFd openProgram() const EXCLUDES(mutex_);
  // The text of a file of the process's directory, cut at the limit; empty when it can't be read.
  [[nodiscard]] std::string read(const char* name, std::size_t limit) const EXCLUDES(mutex_);
  [[nodiscard]] bool lives() const;

 private:
  [[nodiscard]] const Directory* heldDirectory() const EXCLUDES(mutex_);

  const int pid_;
  const UniqueFd pidfd_;
  mutable NativeMutex mutex_;
  std::optional<Directory> held_ GUARDED_BY(mutex_);  // once set, never changed
};

}  // namespace quillmark::os
