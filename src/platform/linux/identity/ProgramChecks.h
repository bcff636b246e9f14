// ProgramChecks: reads and judges the files of running programs, and remembers what was judged, by file, so that a
// program is read once and not for each of its processes.
// Threads: thread-safe. May wait for a disk: call where that delays nobody.
#pragma once

#include <atomic>
#include <map>
#include <optional>
#include <string>

#include "platform/linux/PeerProcess.h"
#include "platform/linux/identity/CodeSignature.h"

namespace quillmark::os {

struct ProgramIdentity {
  std::string identifier;
  std::string team;
  bool isValid = false;  // signed by the anchor, in a file that nobody but its owner can change
};

class ProgramChecks final {
 public:
  ProgramChecks(CodeAnchor anchor, std::uint32_t owner) : anchor_(anchor), owner_(owner) {}

  // The program that the process is held by. Absent when it isn't one that carries a note, lies where nothing is read, or
  // is no longer what the process runs.
  [[nodiscard]] std::optional<ProgramIdentity> identify(const LinuxPeerProcess& process) EXCLUDES(mutex_);
  // How many files were read whole.
  [[nodiscard]] unsigned filesRead() const { return filesRead_; }

 private:
  struct Judged {
    ProgramIdentity identity;
    MonotonicTime at;
  };
  [[nodiscard]] std::optional<ProgramIdentity> remembered(const FileStamp& stamp) EXCLUDES(mutex_);
  void remember(const FileStamp& stamp, const ProgramIdentity& identity) EXCLUDES(mutex_);
  [[nodiscard]] std::optional<ProgramIdentity> read(int file, const FileFacts& facts);

  const CodeAnchor anchor_;
  const std::uint32_t owner_;
  std::atomic<unsigned> filesRead_ = 0;
  NativeMutex mutex_;
  std::map<FileStamp, Judged> judged_ GUARDED_BY(mutex_);
};

}  // namespace quillmark::os
