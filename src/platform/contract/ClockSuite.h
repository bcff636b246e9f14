// What the clocks promise, on every backend.
#pragma once

#include "platform/contract/DispatchBackend.h"

namespace quillmark::contract {

class ClockSuite : public DispatchSuite {};

TEST_P(ClockSuite, TheClocksGoOnTogetherWhileTheMachineIsAwake) {
  on([](Dispatch& dispatch) {
    Clock& clock = dispatch.clock();
    const Date wall = clock.now();
    const MonotonicTime monotonic = clock.monotonic();
    const auto boot = clock.sinceBoot();
    sleepFor(dispatch, 20ms);
    const double passed = std::chrono::duration<double>(clock.monotonic() - monotonic).count();
    EXPECT_GE(passed, 0.02);
    EXPECT_NEAR((clock.now() - wall).count(), passed, 1);
    EXPECT_NEAR(std::chrono::duration<double>(clock.sinceBoot() - boot).count(), passed, 1);
    EXPECT_GE(clock.sinceBoot(), clock.monotonic().time_since_epoch());
  });
}

TEST_P(ClockSuite, LocalTimeDiffersFromUniversalTimeByQuartersOfAnHour) {
  on([](Dispatch& dispatch) {
    Clock& clock = dispatch.clock();
    EXPECT_FALSE(clock.timeZone().empty());
    const Date date = Date::from1970(1'785'585'723.25);  // 2026-08-01 12:02:03.250 UTC
    const LocalTime local = clock.local(date);
    EXPECT_EQ(local.year, 2026);
    EXPECT_TRUE(local.month == 8 || local.day == 31);
    EXPECT_EQ(local.minute % 15, 2);
    EXPECT_EQ(local.second, 3);
    EXPECT_EQ(local.millisecond, 250);
  });
}

}  // namespace quillmark::contract
