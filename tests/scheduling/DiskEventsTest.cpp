#include "SchedulerMachine.h"

namespace quillmark {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using enum DiskEvent::Kind;

TEST(DiskEvents, OfSnapshotMountsAreIgnoredUnlessTheyGo) {
  SchedulerMachine machine;
  const std::string& user = machine.paths.userMountRoot;
  machine.add("plain", machine.now());
  ASSERT_TRUE(machine.volumes.mount(machine.uuid, "/mnt/elsewhere", "plain", mntReadOnly));
  struct Case {
    std::string path, kind;
    bool isIgnored;
  };
  const std::vector<Case> cases = {
      {machine.paths.privateMountRoot + "/.index-Data-1", "apfs", true},
      {user + "/Data-x@snap-5", "APFS", true},
      {user + "/Data-x@snap-5", "ext4", true},
      {user + "/com.apple.TimeMachine.localsnapshots/a", "apfs", true},
      {user + "/.timemachine/a", "apfs", true},
      {"/mnt/elsewhere", "apfs", true},
      {"/mnt/elsewhere", "ext4", false},
      {"/mnt/x@snap-5", "apfs", false},
      {"/Volumes/Data", "apfs", false},
      {"/mnt/stick", "vfat", false},
  };
  for (const Case& test : cases) {
    for (const auto kind : {appeared, descriptionChanged, disappeared}) {
      DiskEventHandler handler(machine.services);
      machine.log.lines.clear();
      machine.invalidations = 0;
      machine.appeared.clear();
      const bool isIgnored = test.isIgnored && kind != disappeared;
      machine.run([&] { EXPECT_EQ(handler.handle({kind, test.path, test.kind, "disk9s1"}), !isIgnored) << test.path; });
      EXPECT_EQ(machine.invalidations, isIgnored ? 0 : 1);
      EXPECT_EQ(machine.log.lines.size(), isIgnored ? 0U : 1U);
      EXPECT_EQ(machine.appeared.size(), kind == appeared && !isIgnored ? 1U : 0U);
    }
  }
}

TEST(DiskEvents, ReachTheSchedulerFromThePlatform) {
  SchedulerMachine machine;
  machine.setPolicy(only({Cadence::freq}));
  machine.volumes.take(machine.uuid);
  machine.start();
  machine.runFor(2min);
  EXPECT_THAT(machine.scheduler->freeSpaceStates(), IsEmpty());
  machine.volumes.add(sim::makeSimVolume(machine.uuid));
  machine.runFor(1s);
  EXPECT_THAT(machine.scheduler->freeSpaceStates(), SizeIs(1)) << "not only after 15 minutes";
  EXPECT_THAT(machine.appeared, ElementsAre("/Volumes/Data"));
  EXPECT_THAT(machine.log.lines, ElementsAre("disk-appeared disk1s1 /Volumes/Data apfs"));
  machine.runFor(1min);
  EXPECT_THAT(machine.names(), SizeIs(1));
}

TEST(DiskEvents, ThatThePlatformCantGiveLeaveTheTimers) {
  SchedulerMachine machine;
  machine.sim.disks().canWatch = false;
  machine.setPolicy(only({Cadence::freq}));
  machine.start();
  machine.runFor(2min);
  EXPECT_THAT(machine.names(), SizeIs(1));
  EXPECT_THAT(machine.log.lines,
              ElementsAre("Disk events are not available; volumes are looked at by the timers alone"));
}

TEST(DiskEventLog, ItemisesSixtyEventsAnHour) {
  sim::Simulation simulation;
  DiskEventLog log(simulation.startLife("helper").dispatch());
  const Date start = utc("2026-03-01T09:59:00Z");
  const DiskEvent nameless{disappeared, std::nullopt, std::nullopt, std::nullopt};
  for (int i = 0; i < 60; ++i) {
    EXPECT_EQ(log.line({appeared, "/a", "APFS", "disk1s1"}, start), "disk-appeared disk1s1 /a apfs");
  }
  EXPECT_EQ(log.line(nameless, start), "disk-disappeared (60 disk events itemised this hour; the rest are not logged)");
  for (int i = 0; i < 100; ++i) EXPECT_EQ(log.line(nameless, start), std::nullopt);
  EXPECT_EQ(log.line(nameless, start + Seconds(60)), "disk-disappeared ? not mounted") << "a new hour";
  EXPECT_EQ(log.line({descriptionChanged, "/b", "vfat", std::nullopt}, start + Seconds(60)),
            "disk-description-changed ? /b");
}

}  // namespace
}  // namespace quillmark
