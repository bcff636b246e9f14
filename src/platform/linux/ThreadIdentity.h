// The Linux twin of ThreadIdentity: raw system calls, which unlike the C library's wrappers change one thread; effective
// ids only, since a thread whose real id is the user's could be signalled, and ended with the process, by that user.
// Threads: see the interface.
#pragma once

#include <optional>

#include "base/UniqueFd.h"
#include "platform/ThreadIdentity.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/Threads.h"

namespace quillmark::os {

class LinuxThreadIdentity final : public ThreadIdentity {
 public:
  LinuxThreadIdentity();

  [[nodiscard]] std::string volumeKey(const std::string& path) override EXCLUDES(mutex_);
  [[nodiscard]] std::optional<UserIdentity> userIdentity(std::uint32_t uid) override;
  [[nodiscard]] SysStatus assume(const UserIdentity& identity) override;
  [[nodiscard]] SysResult<int> openVolume(const std::string& mountPoint) override EXCLUDES(mutex_);
  [[nodiscard]] SysResult<Step> step(int directory, const std::string& name) override;
  [[nodiscard]] SysStatus permits(int fd, unsigned mode) override;
  [[nodiscard]] SysResult<int> duplicate(int fd) override;
  void close(int fd) override;

 private:
  [[nodiscard]] bool showsProcesses(const std::string& mountPoint) EXCLUDES(mutex_);

  const UniqueFd changes_;  // tells by poll(2) that the mount table is another one
  NativeMutex mutex_;
  std::optional<MountTable> table_ GUARDED_BY(mutex_);  // as last read
};

}  // namespace quillmark::os
