#include <gtest/gtest.h>

#include "scheduling/rules/CadenceCalendar.h"

namespace quillmark {
namespace {

using enum SnapshotCadence;

Date utc(int year, unsigned month, unsigned day, int hour = 0, int minute = 0, double second = 0) {
  const auto days = std::chrono::sys_days(std::chrono::year(year) / std::chrono::month(month) / std::chrono::day(day));
  return Date::from1970(static_cast<double>(days.time_since_epoch().count()) * 86400.0 + hour * 3600 + minute * 60 +
                        second);
}

TEST(CadenceCalendar, startsSlotsInLocalTime) {
  // Saturday, 1 March 2025, 13:47:30 in Berlin.
  const Date date = utc(2025, 3, 1, 12, 47, 30.25);
  const char* berlin = "Europe/Berlin";
  EXPECT_EQ(CadenceCalendar::occurrence(freq, date, berlin), utc(2025, 3, 1, 12, 45));
  EXPECT_EQ(CadenceCalendar::occurrence(hourly, date, berlin), utc(2025, 3, 1, 12));
  EXPECT_EQ(CadenceCalendar::occurrence(daily, date, berlin), utc(2025, 2, 28, 23));
  EXPECT_EQ(CadenceCalendar::occurrence(weekly, date, berlin), utc(2025, 2, 23, 23));
  EXPECT_EQ(CadenceCalendar::occurrence(monthly, date, berlin), utc(2025, 2, 28, 23));
  EXPECT_EQ(CadenceCalendar::next(monthly, date, berlin), utc(2025, 3, 31, 22));  // summer time by then
  EXPECT_EQ(CadenceCalendar::next(freq, date, berlin), utc(2025, 3, 1, 13));
}

TEST(CadenceCalendar, countsWeeksFromMonday) {
  for (unsigned day = 3; day <= 9; ++day) {  // Monday, 3 March 2025, to Sunday
    EXPECT_EQ(CadenceCalendar::occurrence(weekly, utc(2025, 3, day, 23, 59), "UTC"), utc(2025, 3, 3)) << day;
  }
  EXPECT_EQ(CadenceCalendar::next(weekly, utc(2025, 3, 9), "UTC"), utc(2025, 3, 10));
}

TEST(CadenceCalendar, takesTheFirstMomentThatExistsWhenMidnightIsSkipped) {
  // In Santiago the clock went from 24:00 on 7 September 2024 to 01:00.
  EXPECT_EQ(CadenceCalendar::occurrence(daily, utc(2024, 9, 8, 15), "America/Santiago"), utc(2024, 9, 8, 4));
}

TEST(CadenceCalendar, givesAnHourThatComesTwiceOneSlot) {
  // Berlin, 26 October 2025: 02:00 to 03:00 comes at 00:00Z and again at 01:00Z.
  const Date first = CadenceCalendar::occurrence(hourly, utc(2025, 10, 26, 0, 30), "Europe/Berlin");
  EXPECT_EQ(first, utc(2025, 10, 26, 0));
  EXPECT_EQ(CadenceCalendar::occurrence(hourly, utc(2025, 10, 26, 1, 30), "Europe/Berlin"), first);
  EXPECT_EQ(CadenceCalendar::occurrence(hourly, utc(2025, 10, 26, 2, 30), "Europe/Berlin"), utc(2025, 10, 26, 2));
}

// Goal:   slots never run backwards and every date lies in its own slot, over a year with both shifts of the clock.
TEST(CadenceCalendar, slotsAscendAndHoldTheirDates) {
  for (const char* zone : {"Europe/Berlin", "America/New_York", "Australia/Lord_Howe", "Asia/Kolkata"}) {
    for (const SnapshotCadence cadence : allCadences) {
      Date before = Date::from1970(0);
      for (Date date = utc(2025, 1, 1); date < utc(2026, 1, 1); date = date + Seconds(6 * 3600 + 1201)) {
        const Date slot = CadenceCalendar::occurrence(cadence, date, zone);
        ASSERT_LE(slot, date) << zone;
        ASSERT_LE(before, slot) << zone;
        ASSERT_GT(CadenceCalendar::next(cadence, date, zone), slot) << zone;
        ASSERT_EQ(CadenceCalendar::occurrence(cadence, slot, zone), slot) << zone;
        before = slot;
      }
    }
  }
}

}  // namespace
}  // namespace quillmark
