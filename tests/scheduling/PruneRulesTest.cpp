#include <gmock/gmock.h>

#include "scheduling/rules/PruneRules.h"
#include "scheduling/rules/SnapshotNameInfo.h"

namespace quillmark {
namespace {

using PruneRules::Expiry;
using PruneRules::Snap;
using SnapshotNameInfo::Kind;
using testing::ElementsAre;
using testing::IsEmpty;
using enum SnapshotCadence;

constexpr double hour = 3600;
const Date now = Date::fromReference(800'000'000);
Date ago(double hours) { return now - Seconds(hours * hour); }

// The time in the name is another on purpose.
Snap owned(Kind kind, std::uint64_t xid, Date createdAt) {
  return {SnapshotNameInfo::format("x" + std::to_string(xid), kind, Date::from1970(5)), Xid{xid}, createdAt, false,
          true};
}
Snap automatic(SnapshotCadence cadence, std::uint64_t xid, Date createdAt) {
  return owned(Kind::automatic(cadence), xid, createdAt);
}
Snap protectedOne(Snap snap) {
  snap.isProtected = true;
  return snap;
}
SchedulePolicy policyOf(std::set<SnapshotCadence> enabled) {
  SchedulePolicy policy = SchedulePolicy::makeDefault().normalized();
  policy.enabledCadences = std::move(enabled);
  return policy;
}
std::vector<std::uint64_t> xids(const std::vector<Snap>& snaps) {
  std::vector<std::uint64_t> result;
  for (const Snap& snap : snaps) result.push_back(snap.xid.value);
  return result;
}

TEST(PruneRules, rotateWhatLiesBehindTheNewestUnprotected) {
  SchedulePolicy policy = policyOf({hourly});
  policy.retention[hourly] = 4;
  std::vector<Snap> snaps;
  for (std::uint64_t i = 1; i <= 7; ++i) snaps.push_back(automatic(hourly, i, ago(8.0 - static_cast<double>(i))));
  snaps[5].isProtected = true;
  snaps.push_back(owned(Kind::manual(), 8, ago(500)));
  snaps.push_back(owned(Kind::safety(), 9, ago(500)));
  snaps.push_back(automatic(daily, 10, ago(500)));
  EXPECT_THAT(xids(PruneRules::rotationCandidates(snaps, policy)), ElementsAre(1, 2));
  policy.retention[hourly] = 0;
  EXPECT_THAT(xids(PruneRules::rotationCandidates(snaps, policy)), ElementsAre(1, 2, 3, 4, 5));
  policy.enabled = false;
  EXPECT_THAT(PruneRules::rotationCandidates(snaps, policy), IsEmpty());
}

TEST(PruneRules, rotateTheLowerXidFirstAmongEquallyOld) {
  SchedulePolicy policy = policyOf({freq, hourly});
  policy.retention = {{freq, 1}, {hourly, 1}};
  const std::vector<Snap> snaps{automatic(freq, 5, ago(1)), automatic(hourly, 4, ago(1)), automatic(hourly, 2, ago(1)),
                                automatic(freq, 3, ago(1)), automatic(freq, 1, ago(1))};
  EXPECT_THAT(xids(PruneRules::rotationCandidates(snaps, policy)), ElementsAre(1, 2, 3));
}

TEST(PruneRules, endLivesWhenTheirNatureSays) {
  SchedulePolicy off = policyOf({hourly, daily});
  off.enabled = false;
  off.scheduleDisabledAt = ago(5);
  const SchedulePolicy hourlyOnly = policyOf({hourly});
  SchedulePolicy stamped = hourlyOnly;
  stamped.cadenceDisabledAt = {{{daily, ago(20)}}};
  struct Case {
    const char* what;
    Snap snap;
    std::optional<SchedulePolicy> policy;
    std::optional<Date> firstSeenAt;
    std::optional<Date> end;
  };
  const Snap oldDaily = automatic(daily, 1, ago(300));
  Snap foreign{"timeshift", Xid{1}, ago(300), false, false};
  for (const Case& one : std::vector<Case>{
           {"protected", protectedOne(oldDaily), {}, {}, {}},
           {"foreign", foreign, {}, {}, {}},
           {"manual", owned(Kind::manual(), 1, ago(300)), {}, {}, {}},
           {"rotating", automatic(hourly, 1, ago(300)), hourlyOnly, {}, {}},
           {"schedule off", automatic(hourly, 1, ago(300)), off, {}, ago(5 - 24)},
           {"taken after it went off", automatic(hourly, 1, ago(2)), off, {}, ago(2 - 24)},
           {"cadence off", oldDaily, stamped, {}, ago(20 - 168)},
           {"cadence off, nobody knows since when", oldDaily, hourlyOnly, {}, ago(300 - 168)},
           {"the same, seen later", oldDaily, hourlyOnly, ago(10), ago(10 - 168)},
           {"no policy", oldDaily, {}, {}, ago(300 - 168)},
           {"no policy, first sighting", automatic(freq, 1, ago(300)), {}, {}, ago(299)},
           {"grace", automatic(freq, 1, ago(300)), {}, ago(3), ago(3 - 24)},
           {"grace after creation", automatic(freq, 1, ago(1)), {}, ago(3), ago(3 - 24)},
           {"grace long over", automatic(freq, 1, ago(1)), {}, ago(300), ago(0)},
           {"safety", owned(Kind::safety(), 1, ago(48)), hourlyOnly, {}, ago(24)},
           {"safety, seen later", owned(Kind::safety(), 1, ago(48)), hourlyOnly, ago(3), ago(3 - 24)},
       }) {
    EXPECT_EQ(PruneRules::naturalExpiry(one.snap, one.policy, one.firstSeenAt, 24), one.end) << one.what;
  }
}

TEST(PruneRules, expireAtTheVeryMoment) {
  const Snap snap = automatic(freq, 1, ago(1));
  EXPECT_THAT(PruneRules::expired({snap}, std::nullopt, 24, std::nullopt, now), ElementsAre(snap));
  EXPECT_THAT(PruneRules::expired({snap}, std::nullopt, 24, std::nullopt, now - Seconds(0.001)), IsEmpty());
  // Half an hour of safety hours past the sighting is within its grace.
  const Snap safety = owned(Kind::safety(), 2, ago(48));
  EXPECT_THAT(PruneRules::expired({safety}, std::nullopt, 1, ago(3), now), IsEmpty());
}

TEST(PruneRules, tellPeopleWhatEndsASnapshot) {
  SchedulePolicy open = policyOf({hourly});
  open.protectForeignSnapshots = false;
  SchedulePolicy noPruning = open;
  noPruning.pruneOnLowSpace = false;
  const SchedulePolicy standard = policyOf({hourly});
  const Snap foreign{"timeshift", Xid{7}, ago(1), true, false};
  const Snap manual = owned(Kind::manual(), 7, ago(1));
  struct Case {
    const char* what;
    Snap snap;
    std::optional<SchedulePolicy> policy;
    Expiry expiry;
  };
  for (const Case& one : std::vector<Case>{
           {"foreign, no policy", foreign, {}, Expiry::external()},
           {"foreign, kept", foreign, standard, Expiry::external()},
           {"foreign, no pruning", foreign, noPruning, Expiry::external()},
           {"foreign, within reach", foreign, open, Expiry::whenSpaceLow()},
           {"protected", protectedOne(manual), standard, Expiry::never()},
           {"manual, no policy", manual, {}, Expiry::unknown()},
           {"manual", manual, standard, Expiry::whenSpaceLow()},
           {"manual, no pruning", manual, noPruning, Expiry::never()},
           {"safety", owned(Kind::safety(), 7, ago(1)), {}, Expiry::at(ago(-23))},
           {"automatic, no policy", automatic(hourly, 7, ago(1)), {}, Expiry::unknown()},
           {"cadence off", automatic(freq, 7, ago(3)), standard, Expiry::at(ago(2))},
           {"rotating, alone", automatic(hourly, 7, ago(3)), standard, Expiry::at(ago(3 - 24))},
           {"owned without a kind", {"other", Xid{7}, now, false, true}, standard, Expiry::external()},
       }) {
    EXPECT_EQ(PruneRules::expiry(one.snap, {}, one.policy, std::nullopt, 24, now), one.expiry) << one.what;
  }
}

TEST(PruneRules, forecastRotationFromTheNewestOfTheCadence) {
  SchedulePolicy policy = policyOf({hourly});
  policy.retention[hourly] = 3;
  const std::vector<Snap> all{automatic(hourly, 1, ago(4)), automatic(hourly, 2, ago(3)), automatic(hourly, 3, ago(2)),
                              automatic(hourly, 4, ago(1)), protectedOne(automatic(hourly, 5, ago(0.5)))};
  const auto expiry = [&](std::size_t i) { return PruneRules::expiry(all[i], all, policy, std::nullopt, 24, now); };
  EXPECT_EQ(expiry(0), Expiry::at(now));
  EXPECT_EQ(expiry(1), Expiry::at(ago(1 - 1)));
  EXPECT_EQ(expiry(2), Expiry::at(ago(1 - 2)));
  EXPECT_EQ(expiry(3), Expiry::at(ago(1 - 3)));
}

TEST(PruneRules, holdTheAnchorAndWhatCameBefore) {
  const std::vector<Snap> snaps{owned(Kind::manual(), 1, ago(5)), protectedOne(automatic(daily, 2, ago(4))),
                                owned(Kind::safety(), 3, ago(3)), {"timeshift", Xid{4}, ago(3.5), false, false},
                                automatic(hourly, 5, ago(1)),     automatic(hourly, 6, ago(3))};
  EXPECT_THAT(xids(PruneRules::holdCandidates(snaps, snaps[2].name, 2, now)), ElementsAre(3, 6, 2));
  EXPECT_THAT(xids(PruneRules::holdCandidates(snaps, snaps[2].name, -1, now)), ElementsAre(3));
  EXPECT_THAT(xids(PruneRules::holdCandidates(snaps, "", 2, now)), ElementsAre(5, 6));
  EXPECT_THAT(xids(PruneRules::holdCandidates(snaps, "gone", 9, ago(4))), ElementsAre(2, 1));
  EXPECT_THAT(PruneRules::holdCandidates({}, "gone", 9, now), IsEmpty());
}

TEST(PruneRules, spareTheNewestUnprotectedOfEachCadence) {
  const std::vector<Snap> snaps{automatic(hourly, 1, ago(3)), automatic(hourly, 2, ago(2)),
                                protectedOne(automatic(hourly, 3, ago(1))), automatic(daily, 4, ago(90)),
                                owned(Kind::manual(), 5, ago(1))};
  EXPECT_THAT(PruneRules::newestOfEachCadence(snaps, 1), ElementsAre(snaps[3].name, snaps[1].name));
  EXPECT_THAT(PruneRules::newestOfEachCadence(snaps, 0), IsEmpty());
}

}  // namespace
}  // namespace quillmark
