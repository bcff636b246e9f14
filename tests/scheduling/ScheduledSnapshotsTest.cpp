#include "SchedulerMachine.h"

namespace quillmark {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

constexpr Date nineOClock = Date::from1970(1'772'355'600);  // 2026-03-01 09:00:00 UTC, a Sunday
constexpr Seconds minute{60}, hour{3600}, day{86400};

TEST(ScheduledSnapshots, AreTakenForTheSlotOfEachCadenceOnTheFirstTick) {
  SchedulerMachine machine;
  machine.setPolicy(only({Cadence::freq, Cadence::hourly, Cadence::daily, Cadence::weekly, Cadence::monthly}));
  machine.start();
  machine.runFor(60s);
  EXPECT_THAT(machine.names(), IsEmpty()) << "the first tick comes 200 ms past the minute";
  machine.runFor(1s);
  EXPECT_THAT(machine.shortNames(), ElementsAre("auto.freq.2026-03-01T09-00-00Z", "auto.hourly.2026-03-01T09-00-00Z",
                                                "auto.daily.2026-03-01T09-01-00Z", "auto.weekly.2026-03-01T09-01-00Z",
                                                "auto.monthly.2026-03-01T09-01-00Z"))
      << "late ones bear the real time";
  EXPECT_THAT(machine.audit.details(),
              ElementsAre("scheduled freq", "scheduled hourly",
                          "scheduled daily (catch-up for missed Mar 1, 2026, 12:00 AM occurrence)",
                          "scheduled weekly (catch-up for missed Feb 23, 2026, 12:00 AM occurrence)",
                          "scheduled monthly (catch-up for missed Mar 1, 2026, 12:00 AM occurrence)"));
  EXPECT_EQ(machine.history.created, machine.names());
  EXPECT_THAT(machine.platformLog(), ElementsAre("scheduler started", "created " + machine.names()[0],
                                                 "created " + machine.names()[1], "created " + machine.names()[2],
                                                 "created " + machine.names()[3], "created " + machine.names()[4]));
  machine.runFor(13min);
  EXPECT_THAT(machine.names(), SizeIs(5));
  machine.runFor(1min);
  EXPECT_EQ(machine.shortNames().back(), "auto.freq.2026-03-01T09-15-00Z");
  const HelperEvent& event = machine.audit.events.front();
  EXPECT_EQ(event.kind, HelperEvent::Kind::createSnapshot);
  EXPECT_EQ(event.client, HelperEvent::Client::helper);
  EXPECT_EQ(event.user, std::nullopt);
  EXPECT_EQ(event.volumeName, "Data");
  EXPECT_EQ(event.snapshotName, machine.names().front());
  EXPECT_TRUE(event.succeeded);
  EXPECT_TRUE(Uuid::parse(event.id));
}

// Goal:   each cadence has one snapshot in each of its slots, whatever the clock and the zone do.
// Method: the snapshots that a cadence got in a stretch of time, by their names.
TEST(ScheduledSnapshots, ComeOncePerSlotOverZonesAndDaylightSaving) {
  struct Case {
    const char* what;
    const char* zone;
    Cadence cadence;
    const char* start;
    const char* newestBefore;  // the cadence's, made before the start
    Seconds length;
    std::vector<std::string> names;
  };
  const std::vector<Case> cases = {
      {"daily at local midnight, over a short day",
       "Europe/Berlin",
       Cadence::daily,
       "2026-03-28T20:00:00Z",
       "2026-03-28T08:00:00Z",
       day * 2,
       {"2026-03-28T23-00-00Z", "2026-03-29T22-00-00Z"}},
      {"daily, once in a day of 25 hours",
       "Europe/Berlin",
       Cadence::daily,
       "2026-10-24T20:00:00Z",
       "2026-10-24T08:00:00Z",
       day * 2,
       {"2026-10-24T22-00-00Z", "2026-10-25T23-00-00Z"}},
      {"hourly, by the local hour: the one that comes twice is one slot",
       "Europe/Berlin",
       Cadence::hourly,
       "2026-10-24T23:10:00Z",
       "2026-10-24T23:00:30Z",
       hour * 3,
       {"2026-10-25T00-00-00Z", "2026-10-25T02-00-00Z"}},
      {"weekly from Monday",
       "America/New_York",
       Cadence::weekly,
       "2026-03-08T12:00:00Z",
       "2026-03-03T12:00:00Z",
       day,
       {"2026-03-09T04-00-00Z"}},
      {"monthly on the 31st, once",
       "UTC",
       Cadence::monthly,
       "2026-03-31T10:00:00Z",
       "2026-02-20T10:00:00Z",
       day * 2,
       {"2026-03-31T10-01-00Z", "2026-04-01T00-00-00Z"}},
      {"monthly, done for the month",
       "UTC",
       Cadence::monthly,
       "2026-03-31T10:00:00Z",
       "2026-03-01T00:00:30Z",
       hour * 10,
       {}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
    SchedulerMachine machine({.start = utc(test.start), .timeZone = test.zone});
    const std::string before = machine.add(Kind::automatic(test.cadence), utc(test.newestBefore));
    const std::string manual = machine.add(Kind::manual(), utc(test.start));  // satisfies no slot
    SchedulePolicy policy = only({test.cadence});
    policy.retention[test.cadence] = mostRetained(test.cadence);
    machine.setPolicy(policy);
    machine.start();
    machine.runFor(std::chrono::duration_cast<std::chrono::nanoseconds>(test.length));
    std::vector<std::string> expected{before, manual};
    for (const std::string& name : test.names) {
      expected.push_back(std::string(SnapshotNameInfo::prefix) + "auto." + std::string(word(test.cadence)) + "." +
                         name);
    }
    EXPECT_EQ(machine.names(), expected);
  }
}

TEST(ScheduledSnapshots, FollowTheMachineIntoAnotherZone) {
  SchedulerMachine machine({.start = nineOClock + hour * 7});
  machine.add(Kind::automatic(Cadence::daily), nineOClock);
  machine.setPolicy(only({Cadence::daily}));
  machine.start();
  machine.runFor(5min + 1s);
  EXPECT_THAT(machine.names(), SizeIs(1));
  machine.simulation.setTimeZone("Asia/Tokyo");  // 01:05 of the next day
  machine.runFor(1min);
  EXPECT_THAT(machine.shortNames().back(), "auto.daily.2026-03-01T16-06-00Z");
  machine.simulation.setTimeZone("UTC");
  machine.runFor(1h);
  EXPECT_THAT(machine.names(), SizeIs(2)) << "back home, the day has its snapshot";
}

TEST(ScheduledSnapshots, AfterASleepOneIsTakenForTheSlotOfWaking) {
  struct Case {
    std::chrono::minutes wakesAfterTheHour;
    const char* name;
    const char* detail;
  };
  for (const Case& test : {Case{4min, "auto.hourly.2026-03-01T12-00-00Z", "scheduled hourly"},
                           Case{6min, "auto.hourly.2026-03-01T12-06-00Z",
                                "scheduled hourly (catch-up for missed Mar 1, 2026, 12:00 PM occurrence)"}}) {
    SchedulerMachine machine;
    machine.add(Kind::automatic(Cadence::hourly), nineOClock);
    machine.setPolicy(only({Cadence::hourly}));
    machine.start();
    machine.runFor(30s);
    machine.simulation.sleepMachine(3h + test.wakesAfterTheHour - 30s);
    machine.runFor(1s);
    EXPECT_EQ(machine.shortNames().back(), test.name) << "at once, by the resume";
    machine.runFor(20min);
    EXPECT_THAT(machine.names(), SizeIs(2));
    EXPECT_THAT(machine.audit.details(), ElementsAre(test.detail));
  }
}

TEST(ScheduledSnapshots, AClockSetBackNeitherRepeatsADayNorSilencesTheScheduler) {
  SchedulerMachine machine({.start = nineOClock + hour});
  machine.setPolicy(only({Cadence::daily}));
  machine.start();
  machine.runFor(2min);
  machine.simulation.jumpWallClock(hour * -1);
  machine.runFor(2h);
  EXPECT_THAT(machine.names(), SizeIs(1));
  machine.simulation.jumpWallClock(day * -40);
  machine.runFor(1s);
  SchedulePolicy policy = only({Cadence::daily});
  policy.retention[Cadence::daily] = 1;
  machine.add(Kind::automatic(Cadence::daily), nineOClock - day);
  machine.setPolicy(policy);
  machine.scheduler->bumpGeneration(machine.uuid.upper());
  machine.runFor(61s);
  EXPECT_THAT(machine.names(), SizeIs(1)) << "rotated within a minute of the clock that was set";
}

TEST(ScheduledSnapshots, AFailingCreationIsTriedEveryTenMinutesOfItsSlot) {
  SchedulerMachine machine;
  machine.add(Kind::automatic(Cadence::hourly), nineOClock);
  machine.setPolicy(only({Cadence::hourly}));
  machine.volumes.failNext(sim::SimCall::create, EIO, 7);
  std::vector<int> tries;
  machine.volumes.watchCalls([&](sim::SimCall call, const std::string&) {
    if (call == sim::SimCall::create) tries.push_back(machine.life.clock().local(machine.now()).minute);
  });
  machine.start();
  machine.runFor(2h + 15min);
  EXPECT_THAT(tries, ElementsAre(0, 10, 20, 30, 40, 50, 0, 10));
  EXPECT_EQ(machine.shortNames().back(), "auto.hourly.2026-03-01T11-10-00Z");
  const std::string failure = "fs_snapshot_create failed: " + errnoText(EIO);
  EXPECT_EQ(machine.audit.events.front().detail, "scheduled hourly failed");
  EXPECT_EQ(machine.audit.events.front().errorMessage, failure);
  EXPECT_EQ(machine.audit.events.front().snapshotName, std::nullopt);
  EXPECT_THAT(machine.audit.events, SizeIs(8));
  ASSERT_FALSE(machine.notifier.broadcasts.empty());
  EXPECT_LE(machine.notifier.broadcasts.size(), 2U) << "once an hour";
  EXPECT_EQ(machine.notifier.broadcasts.front(), "create_failed(hourly): Failed to create hourly snapshot: " + failure);
  const HelperNotification& notice = machine.notifier.delivered.front();
  EXPECT_EQ(notice.title, "Quillmark snapshot failed");
  EXPECT_EQ(notice.category, NotificationCategory::failure);
  EXPECT_EQ(notice.importance, NotificationImportance::critical);
  EXPECT_EQ(notice.volumeName, "Data");
  EXPECT_EQ(notice.deepLink, "quillmark://volume?uuid=" + machine.uuid.upper());
  EXPECT_EQ(notice.dedupeKey, std::nullopt);
}

TEST(ScheduledSnapshots, ASlotSkippedForLackOfSpaceIsGivenUp) {
  SchedulerMachine machine;
  machine.add(Kind::automatic(Cadence::hourly), nineOClock);
  SchedulePolicy policy = only({Cadence::hourly});
  machine.setPolicy(policy);
  machine.start();
  machine.runUntil(nineOClock + minute * 59);
  machine.setFree(29'940'000'000);
  machine.runFor(2min);
  EXPECT_THAT(machine.names(), SizeIs(1));
  machine.setFree(80 * gigabyte);
  machine.runFor(50min);
  EXPECT_THAT(machine.names(), SizeIs(1)) << "space came back a minute later";
  const std::string message = "Skipped hourly snapshot on Data: free 29.94 GB is below minimum 30 GB";
  EXPECT_EQ(machine.notifier.broadcasts.at(0), "skipped_low_space(hourly): " + message);
  EXPECT_EQ(machine.audit.events.at(0).detail, "scheduled hourly skipped (low space)");
  EXPECT_EQ(machine.audit.events.at(0).errorMessage, message);
  EXPECT_FALSE(machine.audit.events.at(0).succeeded);
  machine.runFor(10min);
  EXPECT_EQ(machine.shortNames().back(), "auto.hourly.2026-03-01T11-00-00Z") << "the next slot's";

  policy.pruneOnLowSpace = false;
  machine.setPolicy(policy);
  machine.setFree(gigabyte);
  machine.runFor(1h);
  EXPECT_EQ(machine.shortNames().back(), "auto.hourly.2026-03-01T12-00-00Z") << "nobody asked to spare space";
}

TEST(ScheduledSnapshots, AreNotTakenWhereNobodyWantsThemOrNothingCanBeTrusted) {
  struct Case {
    const char* what;
    void (*prepare)(SchedulerMachine&);
  };
  const std::vector<Case> cases = {
      {"no policy", [](SchedulerMachine& machine) { machine.write(machine.paths.state("schedules.json"), "{}"); }},
      {"a schedule switched off",
       [](SchedulerMachine& machine) {
         SchedulePolicy policy = only({Cadence::freq});
         policy.enabled = false;
         machine.setPolicy(policy);
       }},
      {"a volume that isn't tracked",
       [](SchedulerMachine& machine) {
         SchedulePolicy policy = only({Cadence::freq});
         policy.tracked = false;
         machine.setPolicy(policy);
       }},
      {"a backup target",
       [](SchedulerMachine& machine) {
         machine.setPolicy(only({Cadence::freq}));
         machine.volumes.change(machine.uuid, [](sim::SimVolume& volume) {
           volume.description.role = "BACKUP";
           volume.description.deviceInternal = false;
         });
       }},
      {"a volume that is away",
       [](SchedulerMachine& machine) {
         machine.setPolicy(only({Cadence::freq}));
         machine.volumes.take(machine.uuid);
       }},
      {"schedules that can't be read",
       [](SchedulerMachine& machine) { machine.write(machine.paths.state("schedules.json"), ""); }},
      {"a volume that can't be listed",
       [](SchedulerMachine& machine) {
         machine.setPolicy(only({Cadence::freq}));
         machine.volumes.failNext(sim::SimCall::list, EIO, 1000);
       }},
  };
  for (const Case& test : cases) {
    SchedulerMachine machine;
    test.prepare(machine);
    machine.start();
    machine.runFor(30min);
    EXPECT_THAT(machine.names(), IsEmpty()) << test.what;
    EXPECT_THAT(machine.audit.events, IsEmpty()) << test.what;
  }
}

TEST(ScheduledSnapshots, WithSchedulesThatCantBeReadNoTickDoesAnything) {
  SchedulerMachine machine;
  machine.isNewVolume = true;
  machine.add(Kind::manual(), nineOClock - day);
  machine.write(machine.paths.state("schedules.json"), "");
  machine.start();
  machine.runFor(30min);
  machine.run([&] { EXPECT_EQ(machine.clocks.firstSeen(VolumeUuid(machine.uuid.lower())), std::nullopt); });
  EXPECT_THAT(machine.notifier.broadcasts, IsEmpty());
}

TEST(ScheduledSnapshots, GoOnWhileProtectionCantBeKnownAndWhileDeletionIsOff) {
  SchedulerMachine machine;
  machine.breakProtection();
  HelperSettings settings;
  settings.automaticDeletionEnabled = false;
  machine.setSettings(settings);
  machine.setPolicy(only({Cadence::freq}));
  machine.start();
  machine.runFor(3h + 1min);
  EXPECT_THAT(machine.names(), SizeIs(13)) << "none is rotated out";
}

TEST(ScheduledSnapshots, AHistoryThatCantListLosesNothingElse) {
  SchedulerMachine machine;
  machine.setPolicy(only({Cadence::hourly}));
  machine.volumes.watchCalls([&](sim::SimCall call, const std::string&) {
    if (call == sim::SimCall::create) machine.volumes.failNext(sim::SimCall::list, EIO);
  });
  machine.start();
  machine.runFor(61s);
  EXPECT_THAT(machine.history.created, IsEmpty());
  EXPECT_THAT(machine.platformLog(),
              ::testing::Contains(HasSubstr("history record failed: fs_snapshot_list failed: ")));
  EXPECT_THAT(machine.audit.details(), ElementsAre("scheduled hourly"));
}

TEST(ScheduledSnapshots, StopWithTheSchedulerAndASecondStartArmsNothingTwice) {
  SchedulerMachine machine;
  machine.setPolicy(only({Cadence::hourly}));
  machine.start();
  machine.start();
  machine.run([&] { machine.scheduler->stop(); });
  machine.runFor(3h);
  EXPECT_THAT(machine.names(), IsEmpty());
  EXPECT_THAT(machine.notifier.pushes, IsEmpty());
  EXPECT_THAT(machine.platformLog(), ElementsAre("scheduler started", "scheduler started", "scheduler stopped"));
  machine.start();
  machine.runFor(2min);
  EXPECT_THAT(machine.names(), SizeIs(1));
}

// Goal:   a volume that doesn't answer gathers no backlog, and the others don't wait for it.
TEST(ScheduledSnapshots, OfOneVolumeDontWaitForAnother) {
  SchedulerMachine machine;
  const Uuid other = *Uuid::parse("11112233-4455-6677-8899-aabbccddeeff");
  machine.volumes.add(sim::makeSimVolume(other, "Other", "/Volumes/Other", "disk2s1"));
  machine.setPolicy(only({Cadence::freq}));
  machine.run([&] { machine.schedules.setPolicy(VolumeUuid(other.lower()), only({Cadence::freq})); });
  int lists = 0;
  machine.volumes.watchCalls([&](sim::SimCall call, const std::string& subject) {
    if (call != sim::SimCall::list || subject != machine.uuid.lower()) return;
    ++lists;
    if (lists == 1) machine.life.delay(1h);
  });
  machine.start();
  machine.runFor(59min);
  EXPECT_EQ(lists, 1);
  EXPECT_THAT(machine.names(), IsEmpty());
  EXPECT_THAT(machine.volumes.snapshots(other), SizeIs(4));
  machine.runFor(3min);
  EXPECT_THAT(machine.shortNames(), ElementsAre("auto.freq.2026-03-01T10-00-00Z")) << "that of the present slot";
  EXPECT_LT(lists, 20) << "sixty ticks became one pass of each kind";
}

}  // namespace
}  // namespace quillmark
