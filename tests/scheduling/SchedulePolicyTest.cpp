#include <gtest/gtest.h>

#include "scheduling/rules/SchedulePolicy.h"

namespace quillmark {
namespace {

using enum SnapshotCadence;

TEST(SchedulePolicy, normalizesEveryRetentionIntoItsRange) {
  SchedulePolicy policy;
  policy.retention = {{hourly, 200}, {daily, -5}};
  policy.lowSpaceBytes = 4'999'999'999;
  const SchedulePolicy mended = policy.normalized();
  const std::map<SnapshotCadence, std::int64_t> wanted{{freq, 4}, {hourly, 24}, {daily, 1}, {weekly, 4}, {monthly, 1}};
  EXPECT_EQ(mended.retention, wanted);
  EXPECT_EQ(mended.lowSpaceBytes, 5'000'000'000);
  policy.lowSpaceBytes = 5'000'000'001;
  EXPECT_EQ(policy.normalized().lowSpaceBytes, 5'000'000'001);
  EXPECT_EQ(SchedulePolicy::makeDefault().normalized().retention.at(monthly), 1);
  EXPECT_EQ(mended.normalized(), mended);
}

TEST(SchedulePolicy, keepsTheTimeOfStoppingOverLaterSaves) {
  const Date first = Date::fromReference(100), second = Date::fromReference(200), third = Date::fromReference(300);
  SchedulePolicy off = SchedulePolicy::makeDefault();
  off.enabled = false;
  off.scheduleDisabledAt = Date::fromReference(7);  // a client's word, not believed
  const SchedulePolicy stored = off.stamped(std::nullopt, first);
  EXPECT_EQ(stored.scheduleDisabledAt, first);
  EXPECT_EQ(off.stamped(stored, second).scheduleDisabledAt, first);
  SchedulePolicy on = off;
  on.enabled = true;
  const SchedulePolicy resumed = on.stamped(stored, second);
  EXPECT_FALSE(resumed.scheduleDisabledAt);
  EXPECT_EQ(off.stamped(resumed, third).scheduleDisabledAt, third);
}

}  // namespace
}  // namespace quillmark
