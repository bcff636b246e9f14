// ClientGroups: which groups let a peer in, by their names of the group database (getgrnam(3)).
// Ownership: borrows the threads on which the database is asked: a directory service may not answer.
// Threads:   thread-safe. Asks again when /etc/group has changed or a minute has passed, and keeps what it knew while the
//            database doesn't answer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/linux/PeerProcess.h"
#include "platform/linux/identity/IdentityThreads.h"

namespace quillmark::os {

struct ClientGroupIds {
  std::optional<std::uint32_t> users;     // whose members may talk to the service
  std::optional<std::uint32_t> programs;  // which genuine clients are installed with
};

class ClientGroups final {
 public:
  explicit ClientGroups(IdentityThreads& threads) : threads_(threads) {}
  [[nodiscard]] ClientGroupIds current() EXCLUDES(mutex_);

  static constexpr const char* users = "quillmark";
  static constexpr const char* programs = "quillmark-client";

 private:
  struct Known {
    ClientGroupIds ids;
    std::optional<FileStamp> database;
    MonotonicTime at{};
  };

  IdentityThreads& threads_;
  NativeMutex mutex_;
  std::optional<Known> known_ GUARDED_BY(mutex_);
};

}  // namespace quillmark::os
