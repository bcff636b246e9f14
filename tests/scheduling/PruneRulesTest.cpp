#include <gmock/gmock.h>

#include <limits>
#include <random>

#include "base/FunctionRef.h"
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

// A volume drawn by a seed, on a coarse grid of time so that many dates are equal. The reference below knows each
// snapshot's kind from the making and never reads a name.
struct World {
  struct Made {
    Snap snap;
    Kind kind;
  };

  explicit World(std::uint64_t seed) : chance(seed) {
    const int count = below(28);
    for (int i = 0; i < count; ++i) made.push_back(draw(static_cast<std::uint64_t>(i)));
    std::shuffle(made.begin(), made.end(), chance);
    for (const Made& one : made) snaps.push_back(one.snap);
    if (below(5) != 0) policy = drawPolicy();
    if (below(3) != 0) firstSeenAt = date();
    safetyHours = 1 + below(40);
  }

  int below(int bound) { return std::uniform_int_distribution<int>(0, bound - 1)(chance); }
  Date date() { return now - Seconds(900.0 * below(4 * 24 * 10)) - Seconds(below(2) * 86400.0 * below(40)); }

  Made draw(std::uint64_t xid) {
    const int what = below(9);
    Made one;
    one.kind = what < 5 ? Kind::automatic(allCadences[static_cast<std::size_t>(what)])
                        : std::array{Kind::manual(), Kind::safety(), Kind::unknown(), Kind::manual()}.at(
                              static_cast<std::size_t>(what - 5));
    one.snap = owned(one.kind, xid, date());
    if (what == 7) one.snap.name = "com.apple.TimeMachine." + std::to_string(xid);
    if (what == 8) one.snap.name = "com.harrowfern.Quillmark.auto.yearly." + std::to_string(xid);
    one.snap.isOwned = what != 7;
    one.snap.isProtected = below(4) == 0;
    return one;
  }

  SchedulePolicy drawPolicy() {
    SchedulePolicy drawn;
    drawn.enabled = below(4) != 0;
    drawn.pruneOnLowSpace = below(2) != 0;
    drawn.protectForeignSnapshots = below(2) != 0;
    if (below(3) != 0) drawn.scheduleDisabledAt = date();
    if (below(3) != 0) drawn.cadenceDisabledAt.emplace();
    for (const SnapshotCadence cadence : allCadences) {
      if (below(2) != 0) drawn.enabledCadences.insert(cadence);
      if (below(4) != 0)
        drawn.retention[cadence] =
            std::array<std::int64_t, 6>{-3, 0, 1, 2, 3, maximum}.at(static_cast<std::size_t>(below(6)));
      if (drawn.cadenceDisabledAt && below(2) != 0) (*drawn.cadenceDisabledAt)[cadence] = date();
    }
    return drawn;
  }

  static constexpr std::int64_t maximum = std::numeric_limits<std::int64_t>::max();
  std::mt19937_64 chance;
  std::vector<Made> made;
  std::vector<Snap> snaps;
  std::optional<SchedulePolicy> policy;
  std::optional<Date> firstSeenAt;
  std::int64_t safetyHours = 24;
  std::map<std::string, std::size_t> decisions;
};

using Made = World::Made;

bool comesBefore(const Snap& newer, const Snap& older) {
  if (newer.createdAt != older.createdAt) return newer.createdAt > older.createdAt;
  return newer.xid > older.xid;
}

bool counts(const Made& one) { return one.snap.isOwned && !one.snap.isProtected && one.kind.cadence.has_value(); }

// How many of its own cadence stand before it, newest first.
std::int64_t rank(const World& world, const Made& one) {
  return std::count_if(world.made.begin(), world.made.end(), [&](const Made& other) {
    return counts(other) && other.kind == one.kind && comesBefore(other.snap, one.snap);
  });
}

bool rotates(const World& world, SnapshotCadence cadence) {
  return world.policy && world.policy->enabled && world.policy->enabledCadences.count(cadence) == 1;
}

std::int64_t keep(const World& world, SnapshotCadence cadence) {
  const auto& retention = world.policy->retention;
  const std::int64_t wanted = retention.count(cadence) == 1 ? retention.at(cadence) : defaultRetention(cadence);
  return wanted < 1 ? 1 : wanted;
}

std::optional<Date> stoppedAt(const World& world, SnapshotCadence cadence) {
  if (!world.policy) return std::nullopt;
  if (!world.policy->enabled) return world.policy->scheduleDisabledAt;
  if (world.policy->enabledCadences.count(cadence) == 1) return std::nullopt;
  const auto& stamps = world.policy->cadenceDisabledAt;
  return stamps && stamps->count(cadence) == 1 ? std::optional(stamps->at(cadence)) : std::nullopt;
}

std::optional<Date> end(const World& world, const Made& one) {
  if (!one.snap.isOwned || one.snap.isProtected) return std::nullopt;
  std::vector<Date> starts{one.snap.createdAt};
  if (world.firstSeenAt) starts.push_back(*world.firstSeenAt);
  double life = 0;
  if (one.kind == Kind::safety()) {
    life = static_cast<double>(world.safetyHours) * 3600;
  } else if (one.kind.cadence && !rotates(world, *one.kind.cadence)) {
    if (const auto stopped = stoppedAt(world, *one.kind.cadence)) starts.push_back(*stopped);
    life = std::map<SnapshotCadence, double>{
        {freq, 3600}, {hourly, 86400}, {daily, 604800}, {weekly, 2592000}, {monthly, 31536000}}[*one.kind.cadence];
  } else {
    return std::nullopt;
  }
  std::vector<Date> ends{*std::max_element(starts.begin(), starts.end()) + Seconds(life)};
  if (world.firstSeenAt) ends.push_back(*world.firstSeenAt + Seconds(86400));
  return *std::max_element(ends.begin(), ends.end());
}

Expiry expiryOf(const World& world, const Made& one) {
  const auto atEnd = [&] { return end(world, one) ? Expiry::at(*end(world, one)) : Expiry::unknown(); };
  const bool pruned = world.policy && world.policy->pruneOnLowSpace;
  if (!one.snap.isOwned) {
    return pruned && !world.policy->protectForeignSnapshots ? Expiry::whenSpaceLow() : Expiry::external();
  }
  if (one.snap.isProtected) return Expiry::never();
  if (one.kind == Kind::safety()) return atEnd();
  if (!world.policy) return Expiry::unknown();
  if (one.kind == Kind::manual()) return pruned ? Expiry::whenSpaceLow() : Expiry::never();
  const SnapshotCadence cadence = *one.kind.cadence;
  if (!rotates(world, cadence)) return atEnd();
  const std::int64_t index = rank(world, one), kept = keep(world, cadence);
  if (index >= kept) return Expiry::at(now);
  Date newest = one.snap.createdAt;
  for (const Made& other : world.made) {
    if (counts(other) && other.kind == one.kind && rank(world, other) == 0) newest = other.snap.createdAt;
  }
  const double slot = std::map<SnapshotCadence, double>{
      {freq, 900}, {hourly, 3600}, {daily, 86400}, {weekly, 604800}, {monthly, 2592000}}[cadence];
  return Expiry::at(newest + Seconds(slot * static_cast<double>(kept - index)));
}

// The snapshots that pass, in an order of one's own.
std::vector<Snap> chosen(const World& world, FunctionRef<bool(const Made&)> passes,
                         FunctionRef<bool(const Made&, const Made&)> before) {
  std::vector<Made> picked;
  for (const Made& one : world.made) {
    if (!passes(one)) continue;
    auto place = picked.begin();
    while (place != picked.end() && before(*place, one)) ++place;
    picked.insert(place, one);
  }
  std::vector<Snap> result;
  for (const Made& one : picked) result.push_back(one.snap);
  return result;
}

void checkRotation(World& world) {
  if (!world.policy) return;
  const auto beyond = [&](const Made& one) {
    return counts(one) && rotates(world, *one.kind.cadence) && rank(world, one) >= keep(world, *one.kind.cadence);
  };
  const auto olderFirst = [](const Made& a, const Made& b) { return comesBefore(b.snap, a.snap); };
  const auto candidates = PruneRules::rotationCandidates(world.snaps, *world.policy);
  ASSERT_EQ(candidates, chosen(world, beyond, olderFirst));
  world.decisions["rotated"] += candidates.size();
}

void checkExpiry(World& world) {
  for (const Made& one : world.made) {
    ASSERT_EQ(PruneRules::naturalExpiry(one.snap, world.policy, world.firstSeenAt, world.safetyHours), end(world, one));
    const Expiry expiry =
        PruneRules::expiry(one.snap, world.snaps, world.policy, world.firstSeenAt, world.safetyHours, now);
    ASSERT_EQ(expiry, expiryOf(world, one)) << one.snap.name;
    ++world.decisions["case " + std::to_string(static_cast<int>(expiry.value))];
  }
  const auto ended = [&](const Made& one) { return end(world, one) && *end(world, one) <= now; };
  const auto earlierFirst = [&](const Made& a, const Made& b) {
    const Date endA = *end(world, a), endB = *end(world, b);
    return endA != endB ? endA < endB : a.snap.xid < b.snap.xid;
  };
  const auto expired = PruneRules::expired(world.snaps, world.policy, world.safetyHours, world.firstSeenAt, now);
  ASSERT_EQ(expired, chosen(world, ended, earlierFirst));
  world.decisions["expired"] += expired.size();
}

void checkSurvivors(World& world) {
  const int count = world.below(4) - 1;
  std::set<std::string> survivors;
  for (const Made& one : world.made) {
    if (counts(one) && rank(world, one) < count) survivors.insert(one.snap.name);
  }
  ASSERT_EQ(PruneRules::newestOfEachCadence(world.snaps, count), survivors);
  world.decisions["survived"] += survivors.size();
}

void checkHold(World& world) {
  const int count = world.below(4) - 1;
  const Made* const anchor = world.made.empty() || world.below(3) == 0 ? nullptr : &world.made.front();
  const Date reference = anchor ? anchor->snap.createdAt : ago(30);
  auto held = chosen(
      world, [&](const Made& one) { return &one != anchor && one.snap.isOwned && !(one.snap.createdAt > reference); },
      [](const Made& a, const Made& b) { return comesBefore(a.snap, b.snap); });
  held.resize(std::min(held.size(), static_cast<std::size_t>(std::max(count, 0))));
  if (anchor) held.insert(held.begin(), anchor->snap);
  ASSERT_EQ(PruneRules::holdCandidates(world.snaps, anchor ? anchor->snap.name : "absent", count, ago(30)), held);
  world.decisions["held"] += held.size();
}

// Goal:   every rule decides as its text says, whatever the volume, the policy and the clock.
// Method: seeded volumes; each decision against one worked out by counting, without names and sorting.
TEST(PruneRules, decideAsCountingDoes) {
  std::map<std::string, std::size_t> decisions;
  for (std::uint64_t seed = 1; seed <= 3000; ++seed) {
    SCOPED_TRACE(seed);
    World world(seed);
    for (auto* check : {checkRotation, checkExpiry, checkSurvivors, checkHold}) {
      check(world);
      if (HasFatalFailure()) return;
    }
    for (const auto& [what, count] : world.decisions) decisions[what] += count;
  }
  // The volumes drawn come by every answer.
  EXPECT_EQ(decisions.size(), 9U);
  for (const auto& [what, count] : decisions) EXPECT_GT(count, 500U) << what;
}

}  // namespace
}  // namespace quillmark
