#include "platform/sim/MachineClock.h"

#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cmath>

namespace quillmark::sim {

class MachineClock::Zone final {
 public:
  explicit Zone(const std::string& name) : zone_(icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(name))) {}
  [[nodiscard]] Seconds offset(Date date) const {
    std::int32_t raw = 0;
    std::int32_t daylight = 0;
    UErrorCode status = U_ZERO_ERROR;
    zone_->getOffset(date.secondsSince1970() * 1000, false, raw, daylight, status);
    return Seconds((raw + daylight) / 1000.0);
  }

 private:
  const std::unique_ptr<icu::TimeZone> zone_;
};

MachineClock::MachineClock(Date start, std::string timeZone)
    : wallShift_(std::chrono::nanoseconds(std::llround(start.secondsSinceReference() * 1e9)) -
                 monotonic_.time_since_epoch()) {
  setTimeZone(std::move(timeZone));
}

MachineClock::~MachineClock() = default;

Date MachineClock::wallAt(MonotonicTime time) const {
  return Date::fromReference(static_cast<double>((time.time_since_epoch() + wallShift_).count()) * 1e-9);
}

MonotonicTime MachineClock::whenWallReads(Date date) const {
  constexpr double farthest = 9e9;
  const double seconds = std::clamp((date - wallAt(monotonic_)).count(), 0.0, farthest);
  return monotonic_ +
         std::max(std::chrono::nanoseconds(std::llround(std::ceil(seconds * 1e9))), std::chrono::nanoseconds(1));
}

void MachineClock::sleep(std::chrono::nanoseconds span) {
  slept_ += span;
  wallShift_ += span;
}

void MachineClock::setTimeZone(std::string name) {
  zone_ = std::make_unique<Zone>(name);
  zoneName_ = std::move(name);
}

LocalTime MachineClock::local(Date date) {
  const double shifted = date.secondsSince1970() + zone_->offset(date).count();
  const auto milliseconds = std::chrono::sys_time<std::chrono::milliseconds>(
      std::chrono::milliseconds(static_cast<std::int64_t>(std::floor(shifted * 1000))));
  const auto day = std::chrono::floor<std::chrono::days>(milliseconds);
  const std::chrono::year_month_day ymd(day);
  const std::chrono::hh_mm_ss time(milliseconds - day);
  return {static_cast<int>(ymd.year()),
          static_cast<int>(static_cast<unsigned>(ymd.month())),
          static_cast<int>(static_cast<unsigned>(ymd.day())),
          static_cast<int>(time.hours().count()),
          static_cast<int>(time.minutes().count()),
          static_cast<int>(time.seconds().count()),
          static_cast<int>(time.subseconds().count())};
}

}  // namespace quillmark::sim
