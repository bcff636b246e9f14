#include "platform/linux/Clock.h"

#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string_view>

namespace quillmark::os {
namespace {

timespec read(clockid_t clock) {
  timespec time;
  ::clock_gettime(clock, &time);
  return time;
}

std::chrono::nanoseconds span(timespec time) {
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

// localtime(5): the link leads to the zone's file below a directory "zoneinfo", where "posix" and "right" hold
// variants.
std::string zoneOfLink() {
  std::array<char, 4096> target;
  const ssize_t length = ::readlink("/etc/localtime", target.data(), target.size());
  if (length <= 0) return {};
  std::string_view zone(target.data(), static_cast<std::size_t>(length));
  constexpr std::string_view directory = "zoneinfo/";
  const auto at = zone.rfind(directory);
  if (at == std::string_view::npos) return {};
  zone.remove_prefix(at + directory.size());
  for (const std::string_view variant : {"posix/", "right/"}) {
    if (zone.starts_with(variant)) zone.remove_prefix(variant.size());
  }
  return std::string(zone);
}

std::string zoneOfFile() {
  std::ifstream file("/etc/timezone");
  std::string line;
  std::getline(file, line);
  return line;
}

}  // namespace

LinuxClock::LinuxClock() { ::unsetenv("TZ"); }

Date LinuxClock::now() {
  const timespec time = read(CLOCK_REALTIME);
  return Date::from1970(static_cast<double>(time.tv_sec)) + Seconds(static_cast<double>(time.tv_nsec) * 1e-9);
}

MonotonicTime LinuxClock::monotonic() { return MonotonicTime(span(read(CLOCK_MONOTONIC))); }

std::chrono::nanoseconds LinuxClock::sinceBoot() { return span(read(CLOCK_BOOTTIME)); }

std::string LinuxClock::timeZone() {
  std::string zone = zoneOfLink();
  if (zone.empty()) zone = zoneOfFile();
  return zone.empty() ? "UTC" : zone;
}

LocalTime LinuxClock::local(Date date) {
  const double whole = std::floor(date.secondsSince1970());
  const auto seconds = static_cast<time_t>(whole);
  tm parts{};
  ::tzset();  // without TZ it looks whether /etc/localtime is another file by now; localtime_r alone does not
  ::localtime_r(&seconds, &parts);
  return {parts.tm_year + 1900,
          parts.tm_mon + 1,
          parts.tm_mday,
          parts.tm_hour,
          parts.tm_min,
          parts.tm_sec,
          static_cast<int>((date.secondsSince1970() - whole) * 1000)};
}

}  // namespace quillmark::os
