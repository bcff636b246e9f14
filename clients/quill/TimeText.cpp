#include "quill/TimeText.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <optional>

#include "platform/clock.h"
#include "quill/Failures.h"

namespace quillmark::cli {
namespace {

// The moment at which that local time is UTC's; absent for a day or a time that there never is.
std::optional<std::chrono::sys_seconds> asUTC(const LocalTime& time) {
  const std::chrono::year_month_day day(std::chrono::year(time.year),
                                        std::chrono::month(static_cast<unsigned>(time.month)),
                                        std::chrono::day(static_cast<unsigned>(time.day)));
  if (!day.ok() || time.hour > 23 || time.minute > 59 || time.second > 59) return std::nullopt;
  return std::chrono::sys_days(day) + std::chrono::hours(time.hour) + std::chrono::minutes(time.minute) +
         std::chrono::seconds(time.second);
}

// How far local time is ahead of UTC at that moment.
std::chrono::minutes offsetFromUTC(const LocalTime& local, Date date) {
  const auto whole = static_cast<std::int64_t>(std::floor(date.secondsSince1970()));
  const std::chrono::sys_seconds moment{std::chrono::seconds(whole)};
  return std::chrono::round<std::chrono::minutes>(asUTC(local).value_or(moment) - moment);
}

Date dateOf(std::chrono::sys_seconds moment) {
  return Date::from1970(static_cast<double>(moment.time_since_epoch().count()));
}

std::string civil(const LocalTime& time, char between) {
  return fmt::format("{:04}-{:02}-{:02}{}{:02}:{:02}:{:02}", time.year, time.month, time.day, between, time.hour,
                     time.minute, time.second);
}

// The pieces of a text, taken from its front.
class Pieces {
 public:
  explicit Pieces(std::string_view text) : rest_(text) {}

  [[nodiscard]] bool atEnd() const { return rest_.empty(); }
  [[nodiscard]] std::string_view rest() const { return rest_; }
  bool take(std::string_view word) {
    if (!rest_.starts_with(word)) return false;
    rest_.remove_prefix(word.size());
    return true;
  }
  // Of that many digits; as many as there are, with 0. Absent, with nothing taken, when there are others.
  std::optional<int> number(std::size_t digits = 0) {
    const auto end = std::min(rest_.find_first_not_of("0123456789"), rest_.size());
    if (end == 0 || end > 6 || (digits != 0 && end != digits)) return std::nullopt;
    int value = 0;
    std::from_chars(rest_.data(), rest_.data() + end, value);
    rest_.remove_prefix(end);
    return value;
  }

 private:
  std::string_view rest_;
};

// "09:15" or "09:15:02"
bool takeTime(Pieces& pieces, LocalTime& time) {
  const auto hour = pieces.number(2);
  if (!hour || !pieces.take(":")) return false;
  const auto minute = pieces.number(2);
  if (!minute) return false;
  std::optional<int> second = 0;
  if (pieces.take(":")) second = pieces.number(2);
  if (!second) return false;
  time.hour = *hour, time.minute = *minute, time.second = *second;
  return true;
}

bool takeDay(Pieces& pieces, LocalTime& time) {
  const auto year = pieces.number(4);
  if (!year || !pieces.take("-")) return false;
  const auto month = pieces.number(2);
  if (!month || !pieces.take("-")) return false;
  const auto day = pieces.number(2);
  if (!day) return false;
  time.year = *year, time.month = *month, time.day = *day;
  return true;
}

// "Z" or "+01:00"
std::optional<std::chrono::minutes> takeOffset(Pieces& pieces) {
  if (pieces.take("Z")) return std::chrono::minutes(0);
  const bool west = pieces.take("-");
  if (!west && !pieces.take("+")) return std::nullopt;
  LocalTime span{};
  if (!takeTime(pieces, span)) return std::nullopt;
  const std::chrono::minutes ahead(span.hour * 60 + span.minute);
  return west ? -ahead : ahead;
}

// Twice: the first guess may lie on the other side of a change of the clocks.
std::optional<Date> ofLocal(Clock& clock, const LocalTime& time) {
  const auto utc = asUTC(time);
  if (!utc) return std::nullopt;
  Date guess = dateOf(*utc);
  for (int i = 0; i < 2; ++i) guess = dateOf(*utc - offsetFromUTC(clock.local(guess), guess));
  return guess;
}

LocalTime midnight(Clock& clock, Date date) {
  LocalTime time = clock.local(date);
  time.hour = time.minute = time.second = time.millisecond = 0;
  return time;
}

std::optional<Date> ago(Clock& clock, std::string_view text) {
  using Unit = std::pair<std::string_view, int>;
  static constexpr std::array units{Unit{"s", 1},       Unit{"m", 60},         Unit{"min", 60},
                                    Unit{"h", 3600},    Unit{"d", 86'400},     Unit{"days", 86'400},
                                    Unit{"w", 604'800}, Unit{"weeks", 604'800}};
  Pieces pieces(text);
  const auto count = pieces.number();
  if (!count) return std::nullopt;
  pieces.take(" ");
  for (const auto& [unit, seconds] : units) {
    if (pieces.rest() == unit) return clock.now() - Seconds(static_cast<double>(*count) * seconds);
  }
  return std::nullopt;
}

std::optional<Date> byName(Clock& clock, std::string_view text) {
  const Date now = clock.now();
  if (text == "now") return now;
  const auto today = ofLocal(clock, midnight(clock, now));
  if (text == "today" || !today) return today;
  // From noon to noon: days of 23 and 25 hours stay in their place.
  if (text == "yesterday") return ofLocal(clock, midnight(clock, *today - Seconds(12 * 3600)));
  return std::nullopt;
}

std::optional<Date> byTime(Clock& clock, std::string_view text) {
  Pieces pieces(text);
  LocalTime time = midnight(clock, clock.now());
  if (!takeTime(pieces, time) || !pieces.atEnd()) return std::nullopt;
  return ofLocal(clock, time);
}

std::optional<Date> byDay(Clock& clock, std::string_view text) {
  Pieces pieces(text);
  LocalTime time{};
  if (!takeDay(pieces, time)) return std::nullopt;
  if (pieces.atEnd()) return ofLocal(clock, time);
  if ((!pieces.take("T") && !pieces.take(" ")) || !takeTime(pieces, time)) return std::nullopt;
  if (pieces.atEnd()) return ofLocal(clock, time);
  const auto ahead = takeOffset(pieces);
  const auto utc = asUTC(time);
  if (!ahead || !utc || !pieces.atEnd()) return std::nullopt;
  return dateOf(*utc - *ahead);
}

}  // namespace

std::string shownTime(Clock& clock, Date date) { return civil(clock.local(date), ' '); }

std::string plainTime(Clock& clock, Date date) {
  const LocalTime local = clock.local(date);
  const auto offset = offsetFromUTC(local, date).count();
  const auto distance = offset < 0 ? -offset : offset;
  return fmt::format("{}{}{:02}:{:02}", civil(local, 'T'), offset < 0 ? '-' : '+', distance / 60, distance % 60);
}

Date momentMeant(Clock& clock, std::string_view text) {
  for (const auto& way : {ago, byName, byTime, byDay}) {
    if (const auto date = way(clock, text)) return *date;
  }
  throw wrongUse(fmt::format("\"{}\" is no moment.", text),
                 "For example: 2h, 3d, today, yesterday, 09:15, 2026-03-01, \"2026-03-01 09:15\"");
}

}  // namespace quillmark::cli
