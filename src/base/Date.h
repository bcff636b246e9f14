// Date: a moment of the wall clock.
// Units: seconds since 2001-01-01 00:00:00 UTC as a double, the reference date of every stored and sent number.
// Threads: immutable.
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quillmark {

using Seconds = std::chrono::duration<double>;

class Date final {
 public:
  static constexpr double unixEpochToReference = 978307200.0;

  Date() = default;
  static constexpr Date fromReference(double seconds) { return Date(seconds); }
  static constexpr Date from1970(double seconds) { return Date(seconds - unixEpochToReference); }

  [[nodiscard]] constexpr double secondsSinceReference() const { return seconds_; }
  [[nodiscard]] constexpr double secondsSince1970() const { return seconds_ + unixEpochToReference; }

  friend constexpr Date operator+(Date date, Seconds by) { return Date(date.seconds_ + by.count()); }
  friend constexpr Date operator-(Date date, Seconds by) { return Date(date.seconds_ - by.count()); }
  friend constexpr Seconds operator-(Date a, Date b) { return Seconds(a.seconds_ - b.seconds_); }
  auto operator<=>(const Date&) const = default;

 private:
  constexpr explicit Date(double seconds) : seconds_(seconds) {}
  double seconds_ = 0;
};

// "2026-03-01T09:15:02Z" (RFC 3339, whole seconds, UTC).
[[nodiscard]] std::string iso8601(Date date);
// Reads that one form, with every field in its range.
[[nodiscard]] std::optional<Date> parseIso8601(std::string_view text);

}  // namespace quillmark
