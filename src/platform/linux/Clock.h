// LinuxClock: the host's clocks, and the zone that /etc/localtime names.
// Threads: thread-safe. Making one takes TZ out of the environment, since the zone is the machine's: make it first.
#pragma once

#include "platform/clock.h"

namespace quillmark::os {

class LinuxClock final : public Clock {
 public:
  LinuxClock();
  [[nodiscard]] Date now() override;
  [[nodiscard]] MonotonicTime monotonic() override;
  [[nodiscard]] std::chrono::nanoseconds sinceBoot() override;
  [[nodiscard]] std::string timeZone() override;
  [[nodiscard]] LocalTime local(Date date) override;
};

}  // namespace quillmark::os
