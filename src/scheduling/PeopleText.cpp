#include "scheduling/PeopleText.h"

#include <fmt/format.h>

#include <array>
#include <cmath>

namespace quillmark {
namespace {

struct Unit {
  const char* name;
  int decimals;
};
constexpr std::array units{Unit{"KB", 0}, Unit{"MB", 1}, Unit{"GB", 2}, Unit{"TB", 2}, Unit{"PB", 2}, Unit{"EB", 2}};

double rounded(double value, int decimals) {
  const double scale = std::pow(10, decimals);
  return std::round(value * scale) / scale;
}

std::string withoutIdleZeros(double value, int decimals) {
  std::string text = fmt::format("{:.{}f}", value, decimals);
  if (decimals == 0) return text;
  text.erase(text.find_last_not_of('0') + 1);
  if (text.ends_with('.')) text.pop_back();
  return text;
}

}  // namespace

std::string fileSizeText(std::int64_t bytes) {
  if (bytes == 0) return "Zero KB";
  if (std::abs(bytes) == 1) return fmt::format("{} byte", bytes);
  if (std::abs(bytes) < 1000) return fmt::format("{} bytes", bytes);
  double value = static_cast<double>(bytes) / 1000;
  std::size_t unit = 0;
  while (std::abs(rounded(value, units[unit].decimals)) >= 1000 && unit + 1 < units.size()) {
    value /= 1000;
    ++unit;
  }
  return withoutIdleZeros(value, units[unit].decimals) + " " + units[unit].name;
}

std::string shortDateAndTime(const LocalTime& time) {
  constexpr std::array months{"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  return fmt::format("{} {}, {}, {}:{:02} {}", months.at(static_cast<std::size_t>(time.month - 1)), time.day, time.year,
                     time.hour % 12 == 0 ? 12 : time.hour % 12, time.minute, time.hour < 12 ? "AM" : "PM");
}

std::string counted(std::size_t count, const std::string& noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

}  // namespace quillmark
