#include "SchedulerMachine.h"

namespace quillmark {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr Date nineOClock = Date::from1970(1'772'355'600);  // 2026-03-01 09:00:00 UTC
constexpr Seconds minute{60};

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
  EXPECT_THAT(machine.platformLog(), SizeIs(6));
  EXPECT_EQ(machine.platformLog()[1], "created " + machine.names()[0]);
  const HelperEvent& event = machine.audit.events.front();
  EXPECT_EQ(event.kind, HelperEvent::Kind::createSnapshot);
  EXPECT_EQ(event.client, HelperEvent::Client::helper);
  EXPECT_EQ(event.user, std::nullopt);
  EXPECT_EQ(event.volumeName, "Data");
  EXPECT_EQ(event.snapshotName, machine.names().front());
  EXPECT_TRUE(event.succeeded);
  EXPECT_TRUE(Uuid::parse(event.id));
}

TEST(ScheduledSnapshots, ThatFailAreToldOfWithTheReason) {
  SchedulerMachine machine;
  machine.add(Kind::automatic(Cadence::hourly), nineOClock);
  machine.setPolicy(only({Cadence::hourly}));
  machine.volumes.failNext(sim::SimCall::create, EIO);
  machine.start();
  machine.runFor(1h + 1min);
  const std::string failure = "fs_snapshot_create failed: " + errnoText(EIO);
  EXPECT_EQ(machine.audit.events.front().detail, "scheduled hourly failed");
  EXPECT_EQ(machine.audit.events.front().errorMessage, failure);
  EXPECT_EQ(machine.audit.events.front().snapshotName, std::nullopt);
  EXPECT_THAT(machine.notifier.broadcasts,
              ElementsAre("create_failed(hourly): Failed to create hourly snapshot: " + failure));
  const HelperNotification& notice = machine.notifier.delivered.front();
  EXPECT_EQ(notice.message, "Failed to create hourly snapshot: " + failure);
  EXPECT_EQ(notice.volumeName, "Data");
  EXPECT_EQ(notice.deepLink, "quillmark://volume?uuid=" + machine.uuid.upper());
}

TEST(ScheduledSnapshots, SkippedForLackOfSpaceAreToldOfWithTheNumbers) {
  SchedulerMachine machine;
  machine.add(Kind::automatic(Cadence::hourly), nineOClock);
  machine.setPolicy(only({Cadence::hourly}));
  machine.start();
  machine.runUntil(nineOClock + minute * 59);
  machine.setFree(29'940'000'000);
  machine.runFor(2min);
  const std::string message = "Skipped hourly snapshot on Data: free 29.94 GB is below minimum 30 GB";
  EXPECT_EQ(machine.notifier.broadcasts.at(0), "skipped_low_space(hourly): " + message);
  EXPECT_EQ(machine.audit.events.at(0).detail, "scheduled hourly skipped (low space)");
  EXPECT_EQ(machine.audit.events.at(0).errorMessage, message);
  EXPECT_FALSE(machine.audit.events.at(0).succeeded);
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
  machine.run([&] { machine.helper.schedules.setPolicy(VolumeUuid(other.lower()), only({Cadence::freq})); });
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
