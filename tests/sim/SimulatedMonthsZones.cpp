#include "SimulatedMonthsZones.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace quillmark::months {
namespace {

constexpr std::int64_t hour = 3600, day = 86400;

enum class Saving { none, european, american, lebanese, lordHowe };
struct Zone {
  const char* name;
  std::int64_t standard, summer;
  Saving saving;
};
constexpr Zone zones[] = {
    {"UTC", 0, 0, Saving::none},
    {"Europe/Berlin", 3600, 7200, Saving::european},
    {"America/New_York", -18000, -14400, Saving::american},
    {"Asia/Kolkata", 19800, 19800, Saving::none},
    {"Asia/Beirut", 7200, 10800, Saving::lebanese},
    {"Australia/Lord_Howe", 37800, 39600, Saving::lordHowe},
    {"America/St_Johns", -12600, -9000, Saving::american},
};

const Zone& zoneOf(const std::string& name) {
  for (const Zone& zone : zones) {
    if (name == zone.name) return zone;
  }
  std::abort();
}

std::int64_t floorTo(std::int64_t value, std::int64_t unit) {
  const std::int64_t rest = value % unit;
  return value - (rest < 0 ? rest + unit : rest);
}

bool isLeap(std::int64_t year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }
std::int64_t daysOf(std::int64_t year) { return isLeap(year) ? 366 : 365; }
std::int64_t daysOf(std::int64_t year, int month) {
  constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return days[month - 1] + (month == 2 && isLeap(year) ? 1 : 0);
}

struct Ymd {
  std::int64_t year;
  int month;
  std::int64_t day;
};

Ymd ymdOf(std::int64_t days) {
  Ymd date{2000, 1, days - 10957};  // 2000-01-01
  for (; date.day < 0; date.day += daysOf(date.year)) --date.year;
  for (; date.day >= daysOf(date.year); ++date.year) date.day -= daysOf(date.year);
  for (; date.day >= daysOf(date.year, date.month); ++date.month) date.day -= daysOf(date.year, date.month);
  ++date.day;
  return date;
}

std::int64_t daysTo(std::int64_t year, int month) {
  std::int64_t days = 10957;
  for (std::int64_t y = 2000; y < year; ++y) days += daysOf(y);
  for (int m = 1; m < month; ++m) days += daysOf(year, m);
  return days;
}

// Monday is 0; 1970-01-01 was a Thursday.
std::int64_t weekday(std::int64_t days) { return ((days + 3) % 7 + 7) % 7; }

// Midnight of it, of no zone. The 0th is the last one of the month.
std::int64_t sunday(std::int64_t year, int month, int which) {
  const std::int64_t first = daysTo(year, month);
  if (which > 0) return (first + 6 - weekday(first) + (which - 1) * 7) * day;
  const std::int64_t last = first + daysOf(year, month) - 1;
  return (last - (weekday(last) + 1) % 7) * day;
}

// When clocks go forward and back in that year.
std::pair<std::int64_t, std::int64_t> changes(const Zone& zone, std::int64_t year) {
  switch (zone.saving) {
    case Saving::european: return {sunday(year, 3, 0) + hour, sunday(year, 10, 0) + hour};
    case Saving::american:
      return {sunday(year, 3, 2) + 2 * hour - zone.standard, sunday(year, 11, 1) + 2 * hour - zone.summer};
    case Saving::lebanese: return {sunday(year, 3, 0) - zone.standard, sunday(year, 10, 0) - zone.summer};
    case Saving::lordHowe:
      return {sunday(year, 10, 1) + 2 * hour - zone.standard, sunday(year, 4, 1) + 2 * hour - zone.summer};
    case Saving::none: break;
  }
  return {0, 0};
}

std::int64_t utcOf(std::int64_t local, const std::string& name) {
  const Zone& zone = zoneOf(name);
  for (const std::int64_t offset : {zone.summer, zone.standard}) {
    if (offsetAt(name, local - offset) == offset) return local - offset;
  }
  // In the gap: the change itself.
  std::int64_t before = local - zone.summer, after = local - zone.standard;
  while (after - before > 1) {
    const std::int64_t middle = before + (after - before) / 2;
    (offsetAt(name, middle) == zone.standard ? before : after) = middle;
  }
  return after;
}

}  // namespace

std::int64_t offsetAt(const std::string& name, std::int64_t utc) {
  const Zone& zone = zoneOf(name);
  if (zone.saving == Saving::none) return zone.standard;
  const auto [forward, back] = changes(zone, ymdOf(floorTo(utc, day) / day).year);
  const bool isSummer = forward < back ? utc >= forward && utc < back : utc >= forward || utc < back;
  return isSummer ? zone.summer : zone.standard;
}

std::int64_t slotStart(int cadence, std::int64_t utc, const std::string& zone) {
  const std::int64_t local = utc + offsetAt(zone, utc);
  const std::int64_t days = floorTo(local, day) / day;
  switch (cadence) {
    case 0: return utcOf(floorTo(local, 900), zone);
    case 1: return utcOf(floorTo(local, hour), zone);
    case 2: return utcOf(days * day, zone);
    case 3: return utcOf((days - weekday(days)) * day, zone);
    default: return utcOf((days - ymdOf(days).day + 1) * day, zone);
  }
}

std::string stampText(std::int64_t utc) {
  const std::int64_t days = floorTo(utc, day) / day, seconds = utc - days * day;
  const Ymd date = ymdOf(days);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d-%02d-%02dZ", static_cast<int>(date.year), date.month,
                static_cast<int>(date.day), static_cast<int>(seconds / hour), static_cast<int>(seconds % hour / 60),
                static_cast<int>(seconds % 60));
  return text;
}

}  // namespace quillmark::months
