#include "base/Date.h"

#include <fmt/format.h>

#include <cmath>

namespace quillmark {

std::string iso8601(Date date) {
  const auto whole = static_cast<std::int64_t>(std::floor(date.secondsSince1970()));
  const std::chrono::sys_seconds moment{std::chrono::seconds(whole)};
  const auto day = std::chrono::floor<std::chrono::days>(moment);
  const std::chrono::year_month_day ymd(day);
  const std::chrono::hh_mm_ss time(moment - day);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(ymd.year()),
                     static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()), time.hours().count(),
                     time.minutes().count(), time.seconds().count());
}

}  // namespace quillmark
