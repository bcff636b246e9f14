#include <gtest/gtest.h>

#include "scheduling/rules/SchedulePlanner.h"

namespace quillmark {
namespace {

using enum SnapshotCadence;

// Seconds since 1970.
constexpr std::int64_t at(int year, unsigned month, unsigned day, int hour = 0, int minute = 0) {
  const auto days = std::chrono::sys_days(std::chrono::year(year) / std::chrono::month(month) / std::chrono::day(day));
  return days.time_since_epoch().count() * 86400 + hour * 3600 + minute * 60;
}
constexpr Date date(std::int64_t seconds) { return Date::from1970(static_cast<double>(seconds)); }

// What 2025 was like in a zone, from the rules that its government printed.
struct Zone {
  const char* name;
  std::int64_t winterOffset;
  std::int64_t summerBegins;
  std::int64_t summerEnds;
  [[nodiscard]] std::int64_t local(std::int64_t seconds) const {
    return seconds + winterOffset + (seconds >= summerBegins && seconds < summerEnds ? 3600 : 0);
  }
};
constexpr Zone berlin{"Europe/Berlin", 3600, at(2025, 3, 30, 1), at(2025, 10, 26, 1)};
constexpr Zone newYork{"America/New_York", -5 * 3600, at(2025, 3, 9, 7), at(2025, 11, 2, 6)};

// The number of the slot, from the hands of the clock on the wall.
std::int64_t slot(SnapshotCadence cadence, std::int64_t localSeconds) {
  const std::int64_t day = localSeconds / 86400;
  switch (cadence) {
    case freq: return localSeconds / 900;
    case hourly: return localSeconds / 3600;
    case daily: return day;
    case weekly: return (day + 3) / 7;  // 1 January 1970 was a Thursday
    case monthly: break;
  }
  const std::chrono::year_month_day date{std::chrono::sys_days(std::chrono::days(day))};
  return static_cast<int>(date.year()) * 12 + static_cast<int>(static_cast<unsigned>(date.month()));
}

// Goal:   each slot of the wall clock gets one snapshot, also the hours that a clock shows twice or never.
// Method: tick through the days around both shifts; a snapshot is due exactly in a slot later than any before.
TEST(SchedulePlanner, isDueOncePerSlotOverBothShiftsOfTheClock) {
  for (const Zone& zone : {berlin, newYork}) {
    for (const std::int64_t shift : {zone.summerBegins, zone.summerEnds}) {
      for (const SnapshotCadence cadence : allCadences) {
        std::optional<Date> last;
        std::int64_t lastSlot = -1;
        for (std::int64_t now = shift - 36 * 3600 + 17; now < shift + 36 * 3600; now += 290) {
          const std::int64_t present = slot(cadence, zone.local(now));
          const auto due = SchedulePlanner::dueOccurrence(cadence, last, date(now), zone.name);
          ASSERT_EQ(due.has_value(), present > lastSlot) << zone.name << ' ' << word(cadence) << ' ' << now - shift;
          if (!due) continue;
          const auto start = static_cast<std::int64_t>(due->secondsSince1970());
          ASSERT_EQ(slot(cadence, zone.local(start)), present);
          ASSERT_NE(slot(cadence, zone.local(start - 1)), present) << "later than the slot's start";
          ASSERT_LE(*due, date(now));
          last = date(now);
          lastSlot = present;
        }
      }
    }
  }
}

TEST(SchedulePlanner, isDueFromTheStartOfASlotWithoutASnapshot) {
  const Date noon = date(at(2025, 3, 1, 12));
  const auto due = [&](std::optional<Date> last, double after) {
    return SchedulePlanner::dueOccurrence(hourly, last, noon + Seconds(after), "UTC");
  };
  EXPECT_EQ(due(std::nullopt, 0), noon);
  EXPECT_EQ(due(noon - Seconds(0.5), 0), noon);
  EXPECT_EQ(due(noon, 0), std::nullopt);
  EXPECT_EQ(due(noon + Seconds(20 * 60), 59 * 60), std::nullopt);  // a catch-up satisfies its slot
  EXPECT_EQ(due(noon + Seconds(20 * 60), 3600), noon + Seconds(3600));
  EXPECT_EQ(due(noon + Seconds(9000), 0), std::nullopt);  // taken before the clock was set back
}

TEST(SchedulePlanner, givesTheSlotsTimeWithinTheToleranceOnly) {
  const Date slot = date(at(2025, 3, 1, 12));
  const auto scheduled = [&](double after) {
    return SnapshotReconciliation::scheduledDate(slot, slot + Seconds(after), Seconds(300));
  };
  EXPECT_EQ(scheduled(0), slot);
  EXPECT_EQ(scheduled(240), slot);
  EXPECT_EQ(scheduled(300), slot);
  EXPECT_EQ(scheduled(300.5), slot + Seconds(300.5));
}

}  // namespace
}  // namespace quillmark
