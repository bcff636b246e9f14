// MountPinRegistry: leases on the mounts of snapshots. While a pin lives, the service refuses to unmount its paths. Pins
// expire by themselves, so that a client that dies leaves nothing behind, and none survives the process.
// Threads: thread-safe.
// Errors:  pin() throws Error when too many live at once: clients make them, and memory must not be theirs to fill.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "base/Date.h"
#include "platform/sync.h"

namespace quillmark {

class Random;

class MountPinRegistry final {
 public:
  static constexpr std::chrono::seconds longestLifetime{86'400};
  static constexpr std::size_t capacity = 4096;

  MountPinRegistry(Threads& threads, Random& random) : clock_(threads.clock()), random_(random), pins_(threads) {}

  // Renews the pin of a live token, paths and reason included; makes a new one for any other.
  [[nodiscard]] std::string pin(std::set<std::string> paths, std::string reason,
                                const std::optional<std::string>& token, std::chrono::seconds lifetime);
  // An unknown token is fine.
  void unpin(const std::string& token);
  // The reason of a live pin that holds exactly this path.
  [[nodiscard]] std::optional<std::string> activeReason(const std::string& path);

 private:
  struct Pin {
    std::set<std::string> paths;
    std::string reason;
    Date expiresAt;
  };
  using Pins = std::map<std::string, Pin>;  // by token
  static void dropExpired(Pins& pins, Date now);

  Clock& clock_;
  Random& random_;
  Guarded<Pins> pins_;
};

}  // namespace quillmark
