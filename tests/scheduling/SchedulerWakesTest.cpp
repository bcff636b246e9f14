#include "SchedulerMachine.h"

namespace quillmark {
namespace {

using ::testing::ElementsAre;

struct WakingMachine : SchedulerMachine {
  // Past what starting brings.
  explicit WakingMachine(const SchedulePolicy& policy = only({Cadence::hourly})) {
    setPolicy(policy);
    start();
    runFor(90s);
  }
  // Runs so many seconds; those, counted from now, in which anything ran at all.
  std::vector<int> secondsAwake(int seconds) {
    std::vector<int> awake;
    for (int second = 0; second < seconds; ++second) {
      const std::uint64_t before = simulation.steps();
      runFor(1s);
      if (simulation.steps() != before) awake.push_back(second);
    }
    return awake;
  }
  // Ticks come 0.2 s after each minute, and space is measured every quarter of an hour.
  static std::vector<int> due(int seconds, int minuteTick, int spaceTick) {
    std::vector<int> due;
    for (int second = 0; second < seconds; ++second) {
      if (second % 60 == minuteTick || second % 900 == spaceTick) due.push_back(second);
    }
    return due;
  }
};

// Goal:   nothing wakes the machine but what is due: nobody polls for a resume, a clock or a disk.
// Method: count the seconds of a day in which any fiber of the helper ran.
TEST(SchedulerWakes, areOneEachMinuteAndOneEachQuarterOfAnHour) {
  WakingMachine machine(only({}));
  EXPECT_EQ(machine.secondsAwake(86400), WakingMachine::due(86400, 30, 814));
}

TEST(SchedulerWakes, areNoneInAMachineThatSleepsAndComeAtOnceWhenItIsAwake) {
  WakingMachine machine;
  const std::uint64_t before = machine.simulation.steps();
  machine.simulation.sleepMachine(3h);
  EXPECT_EQ(machine.simulation.steps(), before);
  machine.simulation.runUntilIdle();
  EXPECT_THAT(machine.shortNames(),
              ElementsAre("auto.hourly.2026-03-01T09-00-00Z", "auto.hourly.2026-03-01T12-00-00Z"));
  // Awake at 12:01:30; both timers are as they were.
  EXPECT_EQ(machine.secondsAwake(900), WakingMachine::due(900, 30, 814));
}

TEST(SchedulerWakes, comeAtOnceWhenTheClockIsSetForward) {
  WakingMachine machine;
  machine.simulation.jumpWallClock(Seconds(2 * 3600));
  machine.simulation.runUntilIdle();
  EXPECT_THAT(machine.shortNames(),
              ElementsAre("auto.hourly.2026-03-01T09-00-00Z", "auto.hourly.2026-03-01T11-00-00Z"));
}

// Timers by the wall clock would wait until it reads again what it had read.
TEST(SchedulerWakes, goOnEachMinuteWhenTheClockIsSetBack) {
  WakingMachine machine;
  machine.simulation.jumpWallClock(Seconds(-2 * 3600));
  machine.simulation.runUntilIdle();
  const std::vector<int> awake = machine.secondsAwake(1800);
  EXPECT_EQ(std::count_if(awake.begin(), awake.end(), [](int second) { return second % 60 == 30; }), 30);
  EXPECT_LE(awake.size(), 33u);
}

}  // namespace
}  // namespace quillmark
