#include "JournalMachine.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Posix.h"

namespace quillmark {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;
using ::testing::StartsWith;

struct ActivityMachine : JournalMachine {
  void failAppends(bool fail) {
    posix->setPlan(fail ? sim::FaultPlan{.fault = sim::Fault::fail, .atCall = 1, .only = sim::PosixCall::write}
                        : sim::FaultPlan{});
  }
  ActivityLog activity{dispatch, *posix, platformLog, HostPaths{.sharedDirectory = directory()}};
};

TEST(ActivityLogTest, oneGoodWriteEndsTheRowOfFailuresAndKeepsTheTally) {
  ActivityMachine machine;
  EXPECT_EQ(machine.activity.health(), AuditLogHealth{});
  Date lastFailure;
  for (int i = 1; i <= 3; ++i) {
    machine.clock.jumpWall(std::chrono::seconds(10));
    lastFailure = machine.clock.now();
    machine.failAppends(true);
    EXPECT_THAT(textOf(machine.activity.append(eventWith("lost"))), StartsWith("write("));
    EXPECT_EQ(machine.activity.health().consecutiveFailedWrites, i);
  }
  machine.failAppends(false);
  machine.clock.jumpWall(std::chrono::seconds(10));
  EXPECT_APPENDED(machine.activity.append(eventWith("kept")));
  const std::string text = "write(" + machine.path() + ") failed: Input/output error";
  EXPECT_EQ(machine.activity.health(), (AuditLogHealth{3, 0, lastFailure, text}));
  const ActivityLog::ReadBatch batch = machine.activity.readSince({});
  EXPECT_THAT(detailsOf(batch.events), ElementsAre("kept"));
  EXPECT_EQ(batch.skippedCorruptLines, 0);
  EXPECT_TRUE(machine.activity.readSince(batch.cursor).resumedCursor);
}

TEST(ActivityLogTest, theListenerHearsOfStoredEventsOnlyAndMayUseTheLog) {
  ActivityMachine machine;
  EXPECT_EQ(machine.activity.onEvent(), nullptr);
  EXPECT_APPENDED(machine.activity.append(eventWith("before it was set")));
  std::vector<std::string> heard;
  machine.activity.setOnEvent([&](const HelperEvent& event) {
    heard.push_back(event.detail);
    EXPECT_EQ(machine.activity.readSince({}).events.back(), event) << "on disk by now";
    EXPECT_EQ(machine.activity.health().consecutiveFailedWrites, 0);
    if (event.detail == "from the listener") return;
    EXPECT_APPENDED(machine.activity.append(eventWith("from the listener")));
  });
  EXPECT_APPENDED(machine.activity.append(eventWith("one")));
  machine.failAppends(true);
  EXPECT_NE(machine.activity.append(eventWith("lost")), std::nullopt);
  machine.failAppends(false);
  EXPECT_THAT(heard, ElementsAre("one", "from the listener"));
}

TEST(ActivityLogTest, anEventOfAnUnknownVolumeIsARecord) {
  ActivityMachine machine;
  HelperEvent event = eventWith("");
  event.kind = HelperEvent::Kind::monitorAlarm;
  event.user = "ada";
  event.snapshotName = "";
  event.durationMs = -1;
  EXPECT_APPENDED(machine.activity.append(event));
  EXPECT_THAT(machine.activity.readSince({}).events, ElementsAre(event));
}

TEST(ActivityLogTest, threadsAppendSideBySide) {
  sim::SimPosix place;  // for its directory only
  os::LinuxPosix posix;
  os::LinuxClock clock;
  os::LinuxDispatch dispatch(clock);
  sim::SimPlatformLog platformLog;
  ActivityLog activity(dispatch, posix, platformLog, HostPaths{.sharedDirectory = place.root() + "/log"});
  Guarded<int> heard(dispatch, 0);
  activity.setOnEvent([&](const HelperEvent&) { heard.with([](int& count) { ++count; }); });
  Group group(dispatch);
  for (int i = 0; i < 200; ++i) {
    group.enter();
    dispatch.global(QualityOfService::utility)->async([&, i] {
      EXPECT_APPENDED(activity.append(eventWith(std::to_string(i))));
      group.leave();
    });
  }
  group.wait();
  EXPECT_EQ(heard.with([](int count) { return count; }), 200);
  const ActivityLog::ReadBatch batch = activity.readSince({});
  EXPECT_THAT(batch.events, SizeIs(200));
  EXPECT_EQ(batch.skippedCorruptLines, 0);
}

TEST(HelperEventTest, everyKindAndClientHasItsWordAndItsLabel) {
  std::vector<std::string> kinds, clients;
  for (const auto kind : HelperEvent::allKinds)
    kinds.push_back(std::string(word(kind)) + "=" + std::string(label(kind)));
  for (const auto client : HelperEvent::allClients) {
    clients.push_back(std::string(word(client)) + "=" + std::string(label(client)));
  }
  EXPECT_THAT(kinds, ElementsAre("createSnapshot=Snapshot Created", "deleteSnapshot=Snapshot Deleted",
                                 "mountSnapshot=Snapshot Mounted", "unmountSnapshot=Snapshot Unmounted",
                                 "diffSnapshots=Snapshots Compared", "indexSnapshot=Snapshot Indexed",
                                 "setProtection=Protection Changed", "setTag=Tag Changed", "restoreFile=File Restored",
                                 "monitorAlarm=Mass Change Detected"));
  EXPECT_THAT(clients, ElementsAre("gui=GUI", "cli=CLI", "helper=Helper", "finderSync=Finder", "unknown=Other"));
}

}  // namespace
}  // namespace quillmark
