// MachineClock: the clocks of the simulated machine, which stand still unless they are moved.
// Threads: confined to the simulation's thread.
#pragma once

#include <memory>

#include "platform/clock.h"

namespace quillmark::sim {

class MachineClock final : public Clock {
 public:
  MachineClock(Date start, std::string timeZone);
  ~MachineClock() override;

  [[nodiscard]] Date now() override { return wallAt(monotonic_); }
  [[nodiscard]] MonotonicTime monotonic() override { return monotonic_; }
  [[nodiscard]] std::chrono::nanoseconds sinceBoot() override { return monotonic_.time_since_epoch() + slept_; }
  [[nodiscard]] std::string timeZone() override { return zoneName_; }
  [[nodiscard]] LocalTime local(Date date) override;

  void moveTo(MonotonicTime time) { monotonic_ = std::max(monotonic_, time); }
  void jumpWall(std::chrono::nanoseconds by) { wallShift_ += by; }
  void sleep(std::chrono::nanoseconds span);
  void setTimeZone(std::string name);
  // When, on the monotonic clock, the wall clock reads the date if nobody sets it; later than now in any case.
  [[nodiscard]] MonotonicTime whenWallReads(Date date) const;

 private:
  class Zone;
  [[nodiscard]] Date wallAt(MonotonicTime time) const;

  MonotonicTime monotonic_{std::chrono::hours(1)};  // the machine has been up for a while
  std::chrono::nanoseconds wallShift_;              // from the monotonic clock to the reference date's
  std::chrono::nanoseconds slept_{0};
  std::string zoneName_;
  std::unique_ptr<Zone> zone_;
};

}  // namespace quillmark::sim
