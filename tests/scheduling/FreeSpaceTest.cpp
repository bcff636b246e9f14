#include "SchedulerMachine.h"
#include "wire/Json.h"

namespace quillmark {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr Date nineOClock = Date::from1970(1'772'355'600);  // 2026-03-01 09:00:00 UTC
constexpr Seconds hour{3600}, day{86400};

SchedulePolicy pruningBelow(std::int64_t bytes) {
  SchedulePolicy policy = only({});
  policy.lowSpaceBytes = bytes;
  return policy;
}

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
  struct Case {
    const char* what;
    void (*prepare)(SchedulerMachine&);
    std::int64_t threshold;
  };
  for (const Case& test : {Case{"no policy is stored", [](SchedulerMachine&) {}, 30 * gigabyte},
                           Case{"pruning is off",
                                [](SchedulerMachine& machine) {
                                  SchedulePolicy policy = pruningBelow(50 * gigabyte);
                                  policy.pruneOnLowSpace = false;
                                  machine.setPolicy(policy);
                                },
                                50 * gigabyte},
                           Case{"the gate is closed",
                                [](SchedulerMachine& machine) {
                                  machine.healthBlocks = true;
                                  machine.setPolicy(pruningBelow(50 * gigabyte));
                                },
                                50 * gigabyte}}) {
    SchedulerMachine machine;
    test.prepare(machine);
    machine.setFree(gigabyte);
    for (int i = 0; i < 3; ++i) machine.add(Kind::manual(), nineOClock - hour * i);
    machine.start();
    machine.runFor(1h);
    EXPECT_EQ(pushed(machine).nextPruneCheckAt, std::nullopt) << test.what;
    EXPECT_EQ(pushed(machine).lowSpaceBytesThreshold, test.threshold) << test.what;
    EXPECT_THAT(machine.names(), SizeIs(3)) << test.what;
    EXPECT_THAT(machine.notifier.posted, IsEmpty()) << test.what;
    EXPECT_THAT(machine.notifier.broadcasts, Not(Contains(HasSubstr("no_prune")))) << test.what;
  }
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

TEST(EarlyWarning, ComesCloseAboveTheMinimumAndIsOverWellAboveIt) {
  struct Case {
    std::int64_t free;
    bool warns, resolves;
  };
  for (const Case& test :
       {Case{49'999'999'000, false, false}, Case{50 * gigabyte, true, false}, Case{54'999'999'000, true, false},
        Case{55 * gigabyte, false, false}, Case{59'999'999'000, false, false}, Case{60 * gigabyte, false, true}}) {
    SchedulerMachine machine;
    machine.notifier.active.insert("lowSpaceEarly:" + machine.uuid.upper());
    machine.setFree(test.free);
    machine.setPolicy(pruningBelow(50 * gigabyte));
    machine.start();
    machine.runFor(6s);
    EXPECT_EQ(!machine.notifier.posted.empty(), test.warns) << test.free;
    EXPECT_EQ(!machine.notifier.resolved.empty(), test.resolves) << test.free;
  }
}

TEST(EarlyWarning, SaysWhatIsToBeDone) {
  SchedulerMachine machine;
  machine.setFree(52'340'000'000);
  machine.setPolicy(pruningBelow(50 * gigabyte));
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
  EXPECT_EQ(notice.category, NotificationCategory::lowSpaceEarly);
  EXPECT_EQ(notice.importance, NotificationImportance::normal);
  EXPECT_EQ(notice.dedupeKey, key);
  EXPECT_EQ(notice.cooldown, 21600);
  EXPECT_EQ(notice.deepLink, "quillmark://volume?uuid=" + machine.uuid.upper());
  machine.healthBlocks = true;  // nothing would be pruned any more
  machine.runFor(15min);
  EXPECT_THAT(machine.notifier.resolved,
              ElementsAre(key + "|Free space recovered|Data is comfortably above its low-space threshold again."));
  machine.runFor(15min);
  EXPECT_THAT(machine.notifier.resolved, SizeIs(1)) << "what isn't active isn't resolved";
}

TEST(LowSpacePass, RemovesTheOldestUntilTheMarginIsReached) {
  SchedulerMachine machine;
  machine.setFree(48 * gigabyte);
  machine.setPolicy(pruningBelow(50 * gigabyte));
  const std::uint64_t three = blocks(3 * gigabyte);
  const auto held = machine.add(Kind::automatic(Cadence::hourly), nineOClock - day * 9, three);
  const auto oldest = machine.add(Kind::automatic(Cadence::hourly), nineOClock - day * 8, three);
  const auto manual = machine.add(Kind::manual(), nineOClock - day * 7, three);
  machine.add(":foreign", nineOClock - day * 6);
  const auto safety = machine.add(Kind::safety(), nineOClock - day * 5, three);
  const auto newest = machine.add(Kind::automatic(Cadence::hourly), nineOClock - day * 4, three);
  const auto mounted = machine.add(Kind::manual(), nineOClock - day * 9, three);
  machine.mountForUser(mounted);
  machine.protect(held);
  const Date began = machine.now();
  machine.start();
  machine.runFor(1min);
  // 48 + 3 isn't 55, 48 + 6 isn't either, 48 + 9 is.
  EXPECT_THAT(machine.names(), ElementsAre(held, ":foreign", newest, mounted));
  EXPECT_THAT(
      machine.audit.details(),
      ElementsAre("Pruned because volume free space (48 GB) is below the configured minimum (50 GB). Oldest non-held "
                  "snapshot first; the newest snapshot of each cadence is kept.",
                  StartsWith("Pruned because volume free space (51 GB) is"),
                  StartsWith("Pruned because volume free space (54 GB) is")));
  EXPECT_EQ(machine.audit.events[1].snapshotName, manual);
  EXPECT_NEAR((machine.audit.events[1].timestamp - began).count(), 5 + 12, 0.1) << "four waits, then the next";
  const std::string message =
      "Quillmark pruned 3 snapshots on Data (2 automatic, 1 manual). Reason: low free space (recovered 9 GB so far; "
      "APFS "
      "may release more shortly). Snapshots can't be recovered.";
  EXPECT_THAT(machine.notifier.broadcasts, ElementsAre("prune_completed(): " + message));
  ASSERT_THAT(machine.notifier.delivered, SizeIs(1));
  EXPECT_EQ(machine.notifier.delivered[0].message, message);
  EXPECT_EQ(machine.notifier.delivered[0].title, "Quillmark pruned snapshots");
  static_cast<void>(oldest), static_cast<void>(safety);
}

TEST(LowSpacePass, TakesFourAtATimeAndNeverTellsOfLessThanNothing) {
  SchedulerMachine machine;
  machine.setFree(20 * gigabyte);
  SchedulePolicy policy = pruningBelow(50 * gigabyte);
  policy.protectForeignSnapshots = false;
  machine.setPolicy(policy);
  for (int i = 0; i < 3; ++i) machine.add(":foreign" + std::to_string(i), nineOClock - day * (20 - i));
  for (int i = 0; i < 6; ++i) machine.add(Kind::manual(), nineOClock - day * (10 - i));
  machine.volumes.watchCalls([&](sim::SimCall call, const std::string&) {
    if (call == sim::SimCall::waitForSpace) machine.setFree(19 * gigabyte);  // somebody fills it meanwhile
  });
  machine.start();
  machine.runFor(14min);
  EXPECT_THAT(machine.names(), SizeIs(5));
  EXPECT_THAT(
      machine.notifier.broadcasts,
      ElementsAre("prune_completed(): Quillmark pruned 4 snapshots on Data (1 manual, 3 third-party). Reason: low "
                  "free space (recovered Zero KB so far; APFS may release more shortly). Snapshots can't be "
                  "recovered."));
  machine.runFor(15min);
  EXPECT_THAT(machine.names(), SizeIs(1)) << "the last snapshot stays";
  EXPECT_THAT(machine.notifier.broadcasts, SizeIs(2)) << "not throttled";
}

TEST(LowSpacePass, WaitsUntilThePlatformGotTheSpaceBack) {
  SchedulerMachine machine;
  machine.setFree(49 * gigabyte);
  machine.setPolicy(pruningBelow(50 * gigabyte));
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
  SchedulerMachine machine;
  machine.setFree(49 * gigabyte);
  machine.setPolicy(pruningBelow(50 * gigabyte));
  for (int i = 0; i < 4; ++i) machine.add(Kind::manual(), nineOClock - day * (10 - i));
  machine.volumes.failNext(sim::SimCall::waitForSpace, ETIMEDOUT);
  machine.start();
  machine.runFor(1min);
  EXPECT_THAT(machine.names(), SizeIs(3));
}

TEST(LowSpacePass, SaysOnceADayThatNothingCanGo) {
  struct Case {
    const char* what;
    void (*prepare)(SchedulerMachine&);
    const char* message;
  };
  const char* nothing =
      "On Data, free space is below 50 GB but no snapshots can be pruned. The rest are protected, in use, or the "
      "newest of "
      "their kind. Consider unprotecting older snapshots or freeing space manually.";
  const char* failed =
      "On Data, free space is below 50 GB and Quillmark could not delete the snapshot it selected to reclaim space. It "
      "will try again on the next check; see the activity log for the reason. Free space manually if the volume is "
      "urgently full.";
  const std::vector<Case> cases = {
      {"one snapshot alone", [](SchedulerMachine&) {}, nothing},
      {"the others are the newest of their cadence",
       [](SchedulerMachine& machine) {
         machine.add(Kind::automatic(Cadence::hourly), nineOClock - hour);
         machine.protect(machine.names()[0]);
       },
       nothing},
      {"the snapshots can't be listed",
       [](SchedulerMachine& machine) { machine.volumes.failNext(sim::SimCall::list, EIO, 100'000); }, nothing},
      {"deletion fails",
       [](SchedulerMachine& machine) {
         machine.add(Kind::manual(), nineOClock - hour);
         machine.volumes.failNext(sim::SimCall::remove, EIO, 1000);
       },
       failed},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
    SchedulerMachine machine;
    machine.knowSince(nineOClock - hour);
    machine.setFree(40 * gigabyte);
    machine.setPolicy(pruningBelow(50 * gigabyte));
    machine.add(Kind::manual(), nineOClock - day);
    test.prepare(machine);
    const std::size_t before = machine.names().size();
    machine.start();
    machine.runFor(23h);
    EXPECT_THAT(machine.notifier.broadcasts, ElementsAre(std::string("no_prune_candidates(): ") + test.message));
    ASSERT_THAT(machine.notifier.delivered, SizeIs(1));
    const HelperNotification& notice = machine.notifier.delivered[0];
    EXPECT_EQ(notice.title, "Quillmark can't free more space");
    EXPECT_EQ(notice.category, NotificationCategory::lowSpace);
    EXPECT_EQ(notice.importance, NotificationImportance::critical);
    EXPECT_EQ(notice.dedupeKey, "noPruneCandidates:" + machine.uuid.lower());
    EXPECT_THAT(machine.names(), SizeIs(before));
  }
}

TEST(LowSpacePass, GoesByTheGateAndThePolicyOfItsOwnMoment) {
  SchedulerMachine machine;
  machine.setFree(40 * gigabyte);
  machine.setPolicy(pruningBelow(50 * gigabyte));
  machine.add(Kind::manual(), nineOClock - day);
  machine.add(Kind::manual(), nineOClock - hour);
  // Queued behind something long, during which the gate closes.
  machine.run([&] { machine.queues.queue(machine.uuid.lower())->async([&] { machine.life.delay(1min); }); });
  machine.start();
  machine.runFor(30s);
  machine.healthBlocks = true;
  machine.runFor(1min);
  EXPECT_THAT(machine.names(), SizeIs(2));
  EXPECT_THAT(machine.notifier.broadcasts,
              Contains("no_prune_candidates(): Free space is below the configured minimum, but automatic deletion is "
                       "paused by the global safety switch or a degraded protection/policy store."));
  machine.healthBlocks = false;
  machine.run([&] { machine.queues.queue(machine.uuid.lower())->async([&] { machine.life.delay(16min); }); });
  machine.runFor(15min);
  SchedulePolicy off = pruningBelow(50 * gigabyte);
  off.pruneOnLowSpace = false;
  machine.setPolicy(off);
  machine.runFor(5min);
  EXPECT_THAT(machine.names(), SizeIs(2));
}

TEST(LowSpacePass, OnABackupTargetOrAnAbsentVolumeDoesNothing) {
  for (const bool isAway : {false, true}) {
    SchedulerMachine machine;
    machine.setFree(gigabyte);
    machine.setPolicy(pruningBelow(50 * gigabyte));
    for (int i = 0; i < 3; ++i) machine.add(Kind::manual(), nineOClock - day * i);
    machine.volumes.change(machine.uuid, [](sim::SimVolume& volume) {
      volume.description.role = "Backup";
      volume.description.deviceInternal = false;
    });
    if (isAway) machine.volumes.take(machine.uuid);
    machine.start();
    machine.runFor(1h);
    if (isAway) machine.volumes.add(sim::makeSimVolume(machine.uuid));
    EXPECT_THAT(machine.names(), SizeIs(3));
    EXPECT_THAT(machine.notifier.broadcasts, IsEmpty());
  }
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
    machine.run([&] { machine.schedules.setPolicy(VolumeUuid(volume.lower()), pruningBelow(50 * gigabyte)); });
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
