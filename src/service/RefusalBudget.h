// RefusalBudget: how many refused connections of a user are told in the log, so that nobody fills it by knocking.
// Ownership: borrows the clock.
// Threads:   thread-safe; nothing is logged under the lock.
// Bounds:    20 refusals told per user and minute, for 64 users; further users share one budget.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "platform/sync.h"

namespace quillmark {

class HelperLog;

class RefusalBudget final {
 public:
  static constexpr unsigned toldPerSpan = 20;
  static constexpr std::chrono::minutes span{1};
  static constexpr std::size_t mostUsers = 64;

  explicit RefusalBudget(Threads& threads) : clock_(threads.clock()), lock_(threads) {}

  // Whether what concerns this user's connections is told. Says how many refusals were not, once their span is over.
  [[nodiscard]] bool tells(std::uint32_t user, HelperLog& log) EXCLUDES(lock_);
  // A connection was refused; the last one that is told says so.
  void refused(std::uint32_t user, HelperLog& log) EXCLUDES(lock_);

 private:
  struct Count {
    MonotonicTime since;
    std::uint64_t refused = 0;
  };
  // The user, or nobody where too many others have a budget already.
  [[nodiscard]] std::optional<std::uint32_t> payer(std::uint32_t user) REQUIRES(lock_);
  [[nodiscard]] std::vector<std::string> endSpans() REQUIRES(lock_);

  Clock& clock_;
  Mutex lock_;
  std::map<std::optional<std::uint32_t>, Count> counts_ GUARDED_BY(lock_);
};

}  // namespace quillmark
