// ThreadIdentity: may this user do this? Asked of the kernel by a thread that has taken on the user's identity. A path is
// looked up name by name, so that no question touches another volume than the one that it is asked of.
// Ownership: descriptors are the caller's, close-on-exec, and go by close().
// Threads: volumeKey, duplicate and close from any thread. Everything else on throw-away threads alone: each call may hang
//          for ever, and a thread that took an identity never gives it back.
// Errors:  errno.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/SysResult.h"

namespace quillmark {

struct UserIdentity {
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  std::vector<std::uint32_t> groups;  // all of them
};

enum AccessMode : unsigned { mayExecute = 1, mayWrite = 2, mayRead = 4 };

class ThreadIdentity {
 public:
  virtual ~ThreadIdentity() = default;

  // Names the volume that a path lies on, from the mount table and the path's text; touches no file system.
  [[nodiscard]] virtual std::string volumeKey(const std::string& path) = 0;

  // By the user and group databases; absent when there is no such user.
  [[nodiscard]] virtual std::optional<UserIdentity> userIdentity(std::uint32_t uid) = 0;
  // From here on the calling thread's file calls are judged as the user's; the user can't signal it.
  [[nodiscard]] virtual SysStatus assume(const UserIdentity& identity) = 0;

  // What these descriptors name isn't opened by it: neither read nor waited for.
  struct Step {
    int fd = -1;
    std::optional<std::string> link;  // what it says, when it is a symbolic link
  };
  // What is mounted there. EACCES for what shows a process itself: the asker would see the service.
  [[nodiscard]] virtual SysResult<int> openVolume(const std::string& mountPoint) = 0;
  // The item of that name, a link not followed. EXDEV where another volume begins.
  [[nodiscard]] virtual SysResult<Step> step(int directory, const std::string& name) = 0;
  // The kernel's verdict on what the descriptor names; mode is of AccessMode bits.
  [[nodiscard]] virtual SysStatus permits(int fd, unsigned mode) = 0;

  // A second descriptor of the same.
  [[nodiscard]] virtual SysResult<int> duplicate(int fd) = 0;
  virtual void close(int fd) = 0;
};

}  // namespace quillmark
