#include "base/Date.h"

#include <fmt/format.h>

#include <charconv>
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

std::optional<Date> parseIso8601(std::string_view text) {
  static constexpr std::string_view shape = "dddd-dd-ddTdd:dd:ddZ";
  if (text.size() != shape.size()) return std::nullopt;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (shape[i] == 'd' ? !digit : text[i] != shape[i]) return std::nullopt;
  }
  const auto number = [&](std::size_t at, std::size_t length) {
    int value = 0;
    std::from_chars(text.data() + at, text.data() + at + length, value);
    return value;
  };
  const std::chrono::year_month_day day(std::chrono::year(number(0, 4)),
                                        std::chrono::month(static_cast<unsigned>(number(5, 2))),
                                        std::chrono::day(static_cast<unsigned>(number(8, 2))));
  const int hour = number(11, 2), minute = number(14, 2), second = number(17, 2);
  if (!day.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
  const auto days = std::chrono::sys_days(day).time_since_epoch().count();
  return Date::from1970(static_cast<double>(days) * 86400.0 + hour * 3600 + minute * 60 + second);
}

}  // namespace quillmark
