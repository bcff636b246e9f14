#include "SchedulerMachine.h"
#include "wire/Json.h"

namespace quillmark {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr Date nineOClock = Date::from1970(1'772'355'600);  // 2026-03-01 09:00:00 UTC
constexpr Seconds hour{3600}, day{86400};

SchedulePolicy pruningBelow(std::int64_t bytes) {
  SchedulePolicy policy = only({});
  policy.lowSpaceBytes = bytes;
  return policy;
}

// With a minimum of 50 GB.
struct SpaceMachine : SchedulerMachine {
  explicit SpaceMachine(std::int64_t free) {
    setFree(free);
    setPolicy(pruningBelow(50 * gigabyte));
  }
};

std::uint64_t blocks(std::int64_t bytes) { return static_cast<std::uint64_t>(bytes / 1000); }

VolumeFreeSpaceState pushed(SchedulerMachine& machine) {
  const auto states = decodeJson<std::vector<VolumeFreeSpaceState>>(machine.notifier.pushes.back());
  return states.at(0);
}

TEST(FreeSpaceWatch, MeasuresAndTellsClientsAfterFiveSecondsAndEveryFifteenMinutes) {
  SchedulerMachine machine;
  machine.setFree(80 * gigabyte);
  machine.setPolicy(pruningBelow(40 * gigabyte));
  machine.start();
  machine.runFor(4900ms);
  EXPECT_THAT(machine.notifier.pushes, IsEmpty());
  EXPECT_THAT(machine.scheduler->freeSpaceStates(), IsEmpty());
  machine.runFor(200ms);
  const VolumeFreeSpaceState state = pushed(machine);
  EXPECT_EQ(state.volumeUUID, machine.uuid.upper());
  EXPECT_EQ(state.totalBytes, 100 * gigabyte);
  EXPECT_EQ(state.freeBytes, 80 * gigabyte);
  EXPECT_EQ(state.lowSpaceBytesThreshold, 40 * gigabyte);
  EXPECT_NEAR((*state.nextPruneCheckAt - nineOClock).count(), 905, 0.1);
  EXPECT_EQ(state.firstSeenAt, nineOClock);
  machine.runFor(15min);
  EXPECT_THAT(machine.notifier.pushes, SizeIs(2));
  machine.simulation.sleepMachine(1h);
  machine.runFor(1s);
  EXPECT_THAT(machine.notifier.pushes, SizeIs(3)) << "at once after a sleep";
  EXPECT_THAT(machine.scheduler->freeSpaceStates(), ElementsAre(pushed(machine)));
}

TEST(FreeSpaceWatch, SaysWhenThereIsNoNextCheck) {
  SchedulePolicy noPruning = pruningBelow(50 * gigabyte);
  noPruning.pruneOnLowSpace = false;
  for (const auto& policy : {std::optional<SchedulePolicy>(), std::optional(noPruning)}) {
    SchedulerMachine machine;
    if (policy) machine.setPolicy(*policy);
    machine.start();
    machine.runFor(6s);
    EXPECT_EQ(pushed(machine).nextPruneCheckAt, std::nullopt);
    EXPECT_EQ(pushed(machine).lowSpaceBytesThreshold, (policy ? 50 : 30) * gigabyte);
  }
  SpaceMachine machine(80 * gigabyte);
  machine.healthBlocks = true;
  machine.start();
  machine.runFor(6s);
  EXPECT_EQ(pushed(machine).nextPruneCheckAt, std::nullopt) << "the gate is closed";
}

TEST(FreeSpaceWatch, ABurstOfDiskEventsCostsOneMeasurement) {
  SchedulerMachine machine;
  machine.setPolicy(pruningBelow(40 * gigabyte));
  machine.start();
  machine.runFor(6s);
  const auto nextCheck = pushed(machine).nextPruneCheckAt;
  const DiskEvent event{DiskEvent::Kind::descriptionChanged, "/Volumes/Data", "apfs", "disk1s1"};
  const auto pushesAfter = [&](std::chrono::seconds wait) {
    machine.runFor(wait);
    machine.volumes.announce(event);
    machine.runFor(1s);
    return machine.notifier.pushes.size();
  };
  EXPECT_EQ(pushesAfter(10s), 1U) << "too soon after the timer's";
  EXPECT_EQ(pushesAfter(70s), 2U);
  EXPECT_EQ(pushesAfter(10s), 2U);
  EXPECT_EQ(pushesAfter(70s), 3U);
  EXPECT_EQ(pushed(machine).nextPruneCheckAt, nextCheck);
  machine.runUntil(nineOClock + Seconds(904));
  EXPECT_EQ(machine.notifier.pushes.size(), 3U);
  machine.runFor(2s);
  EXPECT_EQ(machine.notifier.pushes.size(), 4U) << "the timer's came when it was to";
}

TEST(FreeSpaceWatch, WhatCantBeMeasuredKeepsItsStateAndWhatWentAwayIsPushedOn) {
  SchedulerMachine machine;
  machine.setFree(80 * gigabyte);
  machine.start();
  machine.runFor(6s);
  machine.setFree(70 * gigabyte);
  machine.volumes.failNext(sim::SimCall::statfs, EIO, 100);
  machine.runFor(15min);
  EXPECT_EQ(pushed(machine).freeBytes, 80 * gigabyte);
  machine.volumes.take(machine.uuid);
  machine.runFor(15min);
  EXPECT_EQ(pushed(machine).freeBytes, 80 * gigabyte);
}

TEST(EarlyWarning, SaysWhatIsToBeDone) {
  SpaceMachine machine(52'340'000'000);
  machine.start();
  machine.runFor(6s);
  ASSERT_THAT(machine.notifier.posted, SizeIs(1));
  const HelperNotification& notice = machine.notifier.posted[0];
  const std::string key = "lowSpaceEarly:" + machine.uuid.upper();
  EXPECT_EQ(notice.title, "Free space getting low");
  EXPECT_EQ(
      notice.message,
      "Data has 52.34 GB free, close to its 50 GB low-space threshold. Low-space pruning is on for this volume, so "
      "Quillmark will start removing old snapshots below it. Review or protect what you want to keep.");
  EXPECT_EQ(notice.dedupeKey, key);
  machine.healthBlocks = true;  // nothing would be pruned any more
  machine.runFor(15min);
  EXPECT_THAT(machine.notifier.resolved,
              ElementsAre(key + "|Free space recovered|Data is comfortably above its low-space threshold again."));
  machine.runFor(15min);
  EXPECT_THAT(machine.notifier.resolved, SizeIs(1)) << "what isn't active isn't resolved";
}

TEST(LowSpacePass, RemovesTheOldestUntilTheMarginIsReached) {
  SpaceMachine machine(48 * gigabyte);
  const std::uint64_t three = blocks(3 * gigabyte);
  machine.add(Kind::automatic(Cadence::hourly), nineOClock - day * 8, three);
  const auto manual = machine.add(Kind::manual(), nineOClock - day * 7, three);
  machine.add(Kind::safety(), nineOClock - day * 5, three);
  const auto newest = machine.add(Kind::automatic(Cadence::hourly), nineOClock - day * 4, three);
  const Date began = machine.now();
  machine.start();
  machine.runFor(1min);
  // 48 + 3 isn't 55, 48 + 6 isn't either, 48 + 9 is.
  EXPECT_THAT(machine.names(), ElementsAre(newest));
  EXPECT_THAT(
      machine.audit.details(),
      ElementsAre("Pruned because volume free space (48 GB) is below the configured minimum (50 GB). Oldest non-held "
                  "snapshot first; the newest snapshot of each cadence is kept.",
                  StartsWith("Pruned because volume free space (51 GB) is"),
                  StartsWith("Pruned because volume free space (54 GB) is")));
  EXPECT_EQ(machine.audit.events.at(1).snapshotName, manual);
  EXPECT_NEAR((machine.audit.events.at(1).timestamp - began).count(), 5 + 12, 0.1) << "four waits, then the next";
  const std::string message =
      "Quillmark pruned 3 snapshots on Data (2 automatic, 1 manual). Reason: low free space (recovered 9 GB so far; "
      "APFS may release more shortly). Snapshots can't be recovered.";
  EXPECT_THAT(machine.notifier.broadcasts, ElementsAre("prune_completed(): " + message));
  ASSERT_THAT(machine.notifier.delivered, SizeIs(1));
  EXPECT_EQ(machine.notifier.delivered[0].message, message);
}

TEST(LowSpacePass, NeverTellsOfLessThanNothing) {
  SchedulerMachine machine;
  machine.setFree(20 * gigabyte);
  SchedulePolicy policy = pruningBelow(50 * gigabyte);
  policy.protectForeignSnapshots = false;
  machine.setPolicy(policy);
  for (int i = 0; i < 3; ++i) machine.add(":foreign" + std::to_string(i), nineOClock - day * (20 - i));
  for (int i = 0; i < 2; ++i) machine.add(Kind::manual(), nineOClock - day * (10 - i));
  machine.volumes.watchCalls([&](sim::SimCall call, const std::string&) {
    if (call == sim::SimCall::waitForSpace) machine.setFree(19 * gigabyte);  // somebody fills it meanwhile
  });
  machine.start();
  machine.runFor(14min);
  EXPECT_THAT(
      machine.notifier.broadcasts,
      ElementsAre("prune_completed(): Quillmark pruned 4 snapshots on Data (1 manual, 3 third-party). Reason: low "
                  "free space (recovered Zero KB so far; APFS may release more shortly). Snapshots can't be "
                  "recovered."));
}

TEST(LowSpacePass, WaitsUntilThePlatformGotTheSpaceBack) {
  SpaceMachine machine(49 * gigabyte);
  for (int i = 0; i < 4; ++i) machine.add(Kind::manual(), nineOClock - day * (10 - i), blocks(20 * gigabyte));
  machine.volumes.watchCalls([&](sim::SimCall call, const std::string&) {
    if (call == sim::SimCall::waitForSpace) machine.life.delay(50s);
  });
  machine.start();
  machine.runFor(3min);
  EXPECT_THAT(machine.names(), SizeIs(3)) << "12 s would not have been enough";
  EXPECT_THAT(machine.notifier.broadcasts, ElementsAre(HasSubstr("recovered 20 GB so far")));
}

TEST(LowSpacePass, LeavesTheRestForTheNextCheckWhileSpaceIsStillOnItsWay) {
  SpaceMachine machine(49 * gigabyte);
  for (int i = 0; i < 4; ++i) machine.add(Kind::manual(), nineOClock - day * (10 - i));
  machine.volumes.failNext(sim::SimCall::waitForSpace, ETIMEDOUT);
  machine.start();
  machine.runFor(1min);
  EXPECT_THAT(machine.names(), SizeIs(3));
}

TEST(LowSpacePass, SaysThatItCouldNotDelete) {
  SpaceMachine machine(40 * gigabyte);
  for (int i = 1; i < 3; ++i) machine.add(Kind::manual(), nineOClock - day * i);
  machine.volumes.failNext(sim::SimCall::remove, EIO);
  machine.start();
  machine.runFor(6s);
  EXPECT_THAT(
      machine.notifier.broadcasts,
      ElementsAre(
          "no_prune_candidates(): On Data, free space is below 50 GB and Quillmark could not delete the snapshot "
          "it selected to reclaim space. It will try again on the next check; see the activity log for the "
          "reason. Free space manually if the volume is urgently full."));
}

TEST(LowSpacePass, GoesByTheGateAndThePolicyOfItsOwnMoment) {
  SpaceMachine machine(40 * gigabyte);
  machine.add(Kind::manual(), nineOClock - day);
  machine.add(Kind::manual(), nineOClock - hour);
  // Queued behind something long, during which the gate closes.
  machine.run([&] { machine.helper.queues.queue(machine.uuid.lower())->async([&] { machine.life.delay(1min); }); });
  machine.start();
  machine.runFor(30s);
  machine.healthBlocks = true;
  machine.runFor(1min);
  EXPECT_THAT(machine.names(), SizeIs(2));
  EXPECT_THAT(machine.notifier.broadcasts,
              Contains("no_prune_candidates(): Free space is below the configured minimum, but automatic deletion is "
                       "paused by the global safety switch or a degraded protection/policy store."));
  EXPECT_EQ(machine.notifier.delivered.back().dedupeKey, "noPruneCandidates:" + machine.uuid.lower());
  machine.healthBlocks = false;
  machine.run([&] { machine.helper.queues.queue(machine.uuid.lower())->async([&] { machine.life.delay(16min); }); });
  machine.runFor(15min);
  SchedulePolicy off = pruningBelow(50 * gigabyte);
  off.pruneOnLowSpace = false;
  machine.setPolicy(off);
  machine.runFor(5min);
  EXPECT_THAT(machine.names(), SizeIs(2));
}

// Goal:   of volumes that share their space one at a time loses snapshots for it, and the next sees what came back.
// Method: two volumes on one disk and one on another are short of space, which comes back for the first two together, 50
//         seconds after a deletion.
TEST(LowSpacePass, OfVolumesThatShareTheirSpaceOneWaitsForTheOther) {
  SchedulerMachine machine;
  const Uuid neighbour = *Uuid::parse("11112233-4455-6677-8899-aabbccddeeff");
  const Uuid stranger = *Uuid::parse("21112233-4455-6677-8899-aabbccddeeff");
  machine.volumes.add(sim::makeSimVolume(neighbour, "Neighbour", "/Volumes/Neighbour", "disk1s2"));
  machine.volumes.add(sim::makeSimVolume(stranger, "Stranger", "/Volumes/Stranger", "disk2s1"));
  const auto setFree = [&](const Uuid& volume, std::int64_t bytes) {
    machine.volumes.change(volume, [&](sim::SimVolume& changed) {
      changed.blockSize = 1000;
      changed.availableBlocks = blocks(bytes);
    });
  };
  for (const Uuid& volume : {machine.uuid, neighbour, stranger}) {
    setFree(volume, 49 * gigabyte);
    for (int i = 0; i < 3; ++i) {
      const Date made = nineOClock - day * (10 - i);
      ASSERT_TRUE(machine.volumes.addSnapshot(volume, SnapshotNameInfo::format("", Kind::manual(), made), made));
    }
    machine.run([&] { machine.helper.schedules.setPolicy(VolumeUuid(volume.lower()), pruningBelow(50 * gigabyte)); });
  }
  machine.volumes.watchCalls([&](sim::SimCall call, const std::string& subject) {
    if (call != sim::SimCall::waitForSpace) return;
    machine.life.delay(50s);
    if (subject.find("Stranger") != std::string::npos) return setFree(stranger, 60 * gigabyte);
    for (const Uuid& volume : {machine.uuid, neighbour}) setFree(volume, 60 * gigabyte);
  });
  machine.start();
  machine.runFor(6s);
  EXPECT_THAT(machine.volumes.snapshots(stranger), SizeIs(2)) << "waits for nobody";
  machine.runFor(14min);
  EXPECT_EQ(machine.volumes.snapshots(machine.uuid).size() + machine.volumes.snapshots(neighbour).size(), 5U);
  EXPECT_THAT(machine.volumes.snapshots(stranger), SizeIs(2));

  setFree(neighbour, 49 * gigabyte);
  const std::size_t before = machine.volumes.snapshots(neighbour).size();
  machine.runFor(15min);
  EXPECT_EQ(machine.volumes.snapshots(neighbour).size(), before - 1) << "the turn was given back";
}

}  // namespace
}  // namespace quillmark
