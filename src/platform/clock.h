// Clock: what time it is, on the wall and since the machine started; the machine's time zone.
// Threads: thread-safe.
#pragma once

#include <chrono>
#include <string>

#include "base/Date.h"

namespace quillmark {

// A clock that never goes back and stands still while the machine sleeps.
struct MonotonicClockTag {
  using rep = std::int64_t;
  using period = std::nano;
  using duration = std::chrono::nanoseconds;
  using time_point = std::chrono::time_point<MonotonicClockTag>;
  static constexpr bool is_steady = true;
};
using MonotonicTime = MonotonicClockTag::time_point;

// The moment a span after another; a span without an end stays one, a negative one counts as none.
[[nodiscard]] constexpr MonotonicTime after(MonotonicTime time, std::chrono::nanoseconds span) {
  if (span.count() <= 0) return time;
  return span > MonotonicTime::max() - time ? MonotonicTime::max() : time + span;
}

// A moment as the machine's people read it.
struct LocalTime {
  int year, month, day, hour, minute, second, millisecond;
};

class Clock {
 public:
  virtual ~Clock() = default;
  [[nodiscard]] virtual Date now() = 0;
  [[nodiscard]] virtual MonotonicTime monotonic() = 0;
  // Time since boot, sleep included.
  [[nodiscard]] virtual std::chrono::nanoseconds sinceBoot() = 0;
  // The zone's name of the tz database ("Europe/Berlin"), as it stands now; "UTC" when the machine names none.
  [[nodiscard]] virtual std::string timeZone() = 0;
  [[nodiscard]] virtual LocalTime local(Date date) = 0;
};

}  // namespace quillmark
