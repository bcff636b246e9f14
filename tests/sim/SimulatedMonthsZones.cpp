#include "SimulatedMonthsZones.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace quillmark::months {
namespace {

using namespace std::chrono;

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

sys_days dayOf(std::int64_t seconds) { return sys_days(days(floorTo(seconds, day) / day)); }
std::int64_t midnight(sys_days date) { return std::int64_t{date.time_since_epoch().count()} * day; }

// Midnight of it, of no zone. The 0th is the last one of the month.
std::int64_t sunday(year_month month, unsigned which) {
  return midnight(which == 0 ? sys_days(month / Sunday[last]) : sys_days(month / Sunday[which]));
}

// When clocks go forward and back in that year.
std::pair<std::int64_t, std::int64_t> changes(const Zone& zone, year year) {
  switch (zone.saving) {
    case Saving::european: return {sunday(year / 3, 0) + hour, sunday(year / 10, 0) + hour};
    case Saving::american:
      return {sunday(year / 3, 2) + 2 * hour - zone.standard, sunday(year / 11, 1) + 2 * hour - zone.summer};
    case Saving::lebanese: return {sunday(year / 3, 0) - zone.standard, sunday(year / 10, 0) - zone.summer};
    case Saving::lordHowe:
      return {sunday(year / 10, 1) + 2 * hour - zone.standard, sunday(year / 4, 1) + 2 * hour - zone.summer};
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
  const auto [forward, back] = changes(zone, year_month_day(dayOf(utc)).year());
  const bool isSummer = forward < back ? utc >= forward && utc < back : utc >= forward || utc < back;
  return isSummer ? zone.summer : zone.standard;
}

std::int64_t slotStart(int cadence, std::int64_t utc, const std::string& zone) {
  const std::int64_t local = utc + offsetAt(zone, utc);
  const sys_days date = dayOf(local);
  switch (cadence) {
    case 0: return utcOf(floorTo(local, 900), zone);
    case 1: return utcOf(floorTo(local, hour), zone);
    case 2: return utcOf(midnight(date), zone);
    case 3: return utcOf(midnight(date - (weekday(date) - Monday)), zone);
    default: return utcOf(midnight(date - days(static_cast<unsigned>(year_month_day(date).day()) - 1)), zone);
  }
}

std::string stampText(std::int64_t utc) {
  const year_month_day date(dayOf(utc));
  const auto seconds = static_cast<int>(utc - floorTo(utc, day));
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d-%02d-%02dZ", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), seconds / 3600,
                seconds / 60 % 60, seconds % 60);
  return text;
}

}  // namespace quillmark::months
