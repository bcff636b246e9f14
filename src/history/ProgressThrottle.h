// ProgressThrottle: lets something happen once in an interval.
// Threads: thread-safe.
#pragma once

#include <chrono>
#include <optional>

#include "platform/sync.h"

namespace quillmark {

class ProgressThrottle final {
 public:
  ProgressThrottle(Threads& threads, std::chrono::nanoseconds interval)
      : clock_(threads.clock()), interval_(interval), last_(threads) {}

  // True at first, and once the interval has passed since it was last true.
  [[nodiscard]] bool allows() {
    const MonotonicTime now = clock_.monotonic();
    return last_.with([&](std::optional<MonotonicTime>& last) {
      if (last && now - *last < interval_) return false;
      last = now;
      return true;
    });
  }

 private:
  Clock& clock_;
  const std::chrono::nanoseconds interval_;
  Guarded<std::optional<MonotonicTime>> last_;
};

}  // namespace quillmark
