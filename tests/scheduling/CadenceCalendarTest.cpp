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
  EXPECT_EQ(CadenceCalendar::next(weekly, date, berlin), utc(2025, 3, 2, 23));
  EXPECT_EQ(CadenceCalendar::next(monthly, date, berlin), utc(2025, 3, 31, 22));  // summer time by then
  EXPECT_EQ(CadenceCalendar::next(freq, date, berlin), utc(2025, 3, 1, 13));
}

TEST(CadenceCalendar, takesTheFirstMomentThatExistsWhenMidnightIsSkipped) {
  // In Santiago the clock went from 24:00 on 7 September 2024 to 01:00.
  EXPECT_EQ(CadenceCalendar::occurrence(daily, utc(2024, 9, 8, 15), "America/Santiago"), utc(2024, 9, 8, 4));
}

}  // namespace
}  // namespace quillmark
