#include "SchedulerMachine.h"

namespace quillmark {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr Date nineOClock = Date::from1970(1'772'355'600);  // 2026-03-01 09:00:00 UTC
constexpr Seconds minute{60}, hour{3600}, day{86400};

SchedulePolicy keeping(std::int64_t count, Cadence cadence = Cadence::hourly) {
  SchedulePolicy policy = only({cadence});
  policy.retention[cadence] = count;
  return policy;
}

// Hourly ones, oldest first, the newest in the slot of nine o'clock.
std::vector<std::string> addHourly(SchedulerMachine& machine, int count) {
  std::vector<std::string> names;
  for (int i = count - 1; i >= 0; --i) {
    names.push_back(machine.add(Kind::automatic(Cadence::hourly), nineOClock + minute - hour * i));
  }
  return names;
}

TEST(Rotation, RemovesTheOldestBeyondTheCountWithOneNotice) {
  SchedulerMachine machine;
  const auto names = addHourly(machine, 6);
  machine.protect(names[4]);
  machine.setPolicy(keeping(3));
  machine.start();
  machine.runFor(61s);
  EXPECT_THAT(machine.names(), ElementsAre(names[2], names[3], names[4], names[5])) << "the protected one on top";
  EXPECT_EQ(machine.changeNotices, 1);
  EXPECT_THAT(machine.notifier.broadcasts, IsEmpty());
  EXPECT_THAT(machine.notifier.delivered, IsEmpty());
  const std::string reason =
      "Pruned by count rotation: the schedule keeps only the newest hourly snapshots on this volume; this snapshot "
      "fell out of that window.";
  EXPECT_THAT(machine.audit.details(), ElementsAre(reason, reason));
  EXPECT_EQ(machine.audit.events.at(0).snapshotName, names[0]);
  EXPECT_EQ(machine.audit.events.at(0).kind, HelperEvent::Kind::deleteSnapshot);
  EXPECT_THAT(machine.platformLog(), Contains("pruned " + names[0] + ": " + reason));
  EXPECT_THAT(machine.history.deleted, SizeIs(2));
}

TEST(Rotation, TriesAgainWhatFailedOnTheWay) {
  struct Case {
    const char* what;
    void (*breakIt)(SchedulerMachine&);
  };
  const std::vector<Case> cases = {
      {"the second listing fails",
       [](SchedulerMachine& machine) {
         auto lists = std::make_shared<int>(0);
         machine.volumes.watchCalls([&machine, lists](sim::SimCall call, const std::string&) {
           if (call == sim::SimCall::list && ++*lists == 4) machine.volumes.failNext(sim::SimCall::list, EIO);
         });
       }},
      {"the volume can't be opened",
       [](SchedulerMachine& machine) { machine.volumes.failNext(sim::SimCall::open, EIO, 2); }},
  };
  for (const Case& test : cases) {
    SchedulerMachine machine;
    machine.knowSince(nineOClock);
    addHourly(machine, 3);
    machine.setPolicy(keeping(1));
    test.breakIt(machine);
    machine.start();
    machine.runFor(61s);
    EXPECT_THAT(machine.names(), SizeIs(3)) << test.what;
    machine.runFor(2min);
    EXPECT_THAT(machine.names(), SizeIs(1)) << test.what;
  }
}

TEST(Rotation, DeletesNothingWhileProtectionIsUnknown) {
  SchedulerMachine machine;
  addHourly(machine, 4);
  machine.setPolicy(keeping(1));
  machine.breakProtection();
  SchedulerServices trusting = machine.services;
  trusting.automaticDeletionBlocked = [] { return false; };  // a health that has not noticed yet
  const auto scheduler = Scheduler::make(trusting);
  machine.run([&] { scheduler->start(); });
  machine.runFor(6min);
  EXPECT_THAT(machine.names(), SizeIs(4));
  const auto& entries = machine.sim.log().entries();
  const auto says = [&](const std::string& pass) {
    return Contains(sim::SimPlatformLog::Entry{
        PlatformLogType::fault, "com.harrowfern.quillmark.helper", "scheduler",
        pass + " disabled for " + machine.uuid.upper() + " because protection state is unavailable"});
  };
  EXPECT_THAT(entries, says("retention prune"));
  EXPECT_THAT(entries, says("lifespan prune"));
}

TEST(Rotation, WarnsOfTooManySnapshotsOnceADayAndDeletesNoneForIt) {
  SchedulerMachine machine;
  machine.knowSince(nineOClock);
  for (int i = 0; i < 63; ++i) machine.add(Kind::manual(), nineOClock - hour * (i + 1));
  machine.add(":foreign", nineOClock);
  machine.setPolicy(keeping(1));
  machine.start();
  machine.runFor(1h);
  EXPECT_THAT(machine.notifier.broadcasts, IsEmpty()) << "as many as may be, with the hour's own";
  machine.add(Kind::manual(), nineOClock);
  machine.runFor(23h);
  EXPECT_THAT(machine.notifier.broadcasts,
              ElementsAre("soft_ceiling_exceeded(): Volume has 65 Quillmark snapshots (soft limit 64)."));
  EXPECT_THAT(machine.notifier.delivered, IsEmpty());
  machine.runFor(3h);
  EXPECT_THAT(machine.notifier.broadcasts, SizeIs(2));
  EXPECT_THAT(machine.names(), SizeIs(66));
}

// A change that comes while a rotation runs isn't lost with what the rotation itself changed.
TEST(Rotation, SeesWhatChangedWhileItRan) {
  sim::Simulation simulation;
  SnapshotGenerations generations(simulation.startLife("helper").dispatch());
  const VolumeUuid volume("00112233-4455-6677-8899-aabbccddeeff");
  EXPECT_FALSE(generations.isPruned(volume)) << "nothing was ever rotated";
  generations.notePruned(volume, generations.current(volume), 0);
  EXPECT_TRUE(generations.isPruned(volume));
  const std::uint64_t before = generations.current(volume);
  for (int ownDeletions = 0; ownDeletions < 2; ++ownDeletions) generations.bump(volume);
  generations.notePruned(volume, before, 2);
  EXPECT_TRUE(generations.isPruned(volume));
  generations.bump(volume);
  generations.notePruned(volume, before, 2);
  EXPECT_FALSE(generations.isPruned(volume));
}

// When what expires is for the simulated months to say; here is what people are told of it.
TEST(LifespanSweep, TellsWhyEachOneWent) {
  SchedulerMachine machine;
  machine.knowSince(nineOClock - day * 10);
  for (int i = 2; i > 0; --i) machine.add(Kind::automatic(Cadence::hourly), nineOClock - day * 3 - hour * i);
  machine.add(Kind::safety(), nineOClock - day * 2);
  machine.add(Kind::manual(), nineOClock);
  machine.start();
  machine.runFor(61s);
  const std::string automatic =
      "Expired automatic snapshot: its cadence's natural lifespan has passed and count rotation no longer covers it "
      "(cadence or schedule off, or the snapshot predates this install). The countdown started at the latest of "
      "creation, discovery, and rotation stopping.";
  EXPECT_THAT(machine.audit.details(),
              ElementsAre(automatic, automatic,
                          "Expired safety snapshot: its 24h TTL (counted from creation or from this Mac first seeing "
                          "the volume, whichever is later) has passed."));
  const std::string message =
      "Quillmark removed 2 automatic snapshots on Data whose natural lifespan ended (their schedule no longer rotates "
      "them). Protect a snapshot to keep it indefinitely.";
  EXPECT_THAT(machine.notifier.broadcasts, ElementsAre("prune_completed(): " + message));
  ASSERT_THAT(machine.notifier.delivered, SizeIs(1));
  EXPECT_EQ(machine.notifier.delivered[0].message, message);
}

TEST(DiscoveryNotice, IsTheSameForClientsAndPeople) {
  SchedulerMachine machine;
  machine.isNewVolume = true;
  machine.add(Kind::automatic(Cadence::hourly), nineOClock - day);
  machine.start();
  machine.runFor(1h);
  const std::string message =
      "Found 1 existing Quillmark snapshot on Data (from another Mac or a previous install). They now follow their "
      "standard lifespans, so protect any you want to keep. Nothing is deleted within 24 hours of discovery.";
  EXPECT_THAT(machine.notifier.broadcasts, ElementsAre("snapshots_discovered(): " + message));
  ASSERT_THAT(machine.notifier.delivered, SizeIs(1));
  EXPECT_EQ(machine.notifier.delivered[0].message, message);
}

class Deleter : public ::testing::Test {
 protected:
  Deleter() { machine_.setPolicy(only({})); }
  [[nodiscard]] bool remove(const std::string& name, Xid xid) {
    bool removed = false;
    machine_.run([&] { removed = deleter_.remove(machine_.volume(), name, xid, "Because."); });
    return removed;
  }
  void expectRefusal(const std::string& name, Xid xid, const std::string& failure) {
    machine_.audit.events.clear();
    const auto before = machine_.names();
    EXPECT_FALSE(remove(name, xid));
    EXPECT_EQ(machine_.names(), before);
    ASSERT_THAT(machine_.audit.events, SizeIs(1));
    const HelperEvent& event = machine_.audit.events[0];
    EXPECT_EQ(event.detail, "Prune failed. Because.");
    EXPECT_EQ(event.errorMessage, failure);
    EXPECT_EQ(event.snapshotName, name);
    EXPECT_FALSE(event.succeeded);
    EXPECT_EQ(machine_.platformLog().back(), "prune failed for " + name + ": " + failure);
  }

  SchedulerMachine machine_;
  DeletionGate gate_{machine_.services};
  ScheduleAudit audit_{machine_.services};
  SnapshotDeleter deleter_{machine_.services, gate_, audit_};
};

TEST_F(Deleter, RefusesWhatIsGoneAnotherProtectedOrForeign) {
  const auto manual = machine_.add(Kind::manual(), nineOClock);
  const Xid xid = machine_.xidOf(manual);
  const Xid foreign = machine_.add(":foreign", nineOClock);
  const std::string isProtected = "Refusing to delete a protected snapshot. Use Force or unprotect it first.";
  expectRefusal("nowhere", xid, "Snapshot no longer exists");
  expectRefusal(manual, Xid{xid.value + 1}, "Snapshot identity changed before deletion");
  expectRefusal(":foreign", foreign, isProtected);
  machine_.protect(manual);
  expectRefusal(manual, xid, isProtected);
  machine_.volumes.failNext(sim::SimCall::list, EIO);
  expectRefusal(manual, xid, "fs_snapshot_list failed: " + errnoText(EIO));
}

TEST_F(Deleter, RefusesEverythingWhileTheStoreOfProtectionCantBeRead) {
  const auto manual = machine_.add(Kind::manual(), nineOClock);
  machine_.breakProtection();
  SchedulerServices trusting = machine_.services;
  trusting.automaticDeletionBlocked = [] { return false; };
  const DeletionGate open(trusting);
  const SnapshotDeleter deleter(trusting, open, audit_);
  machine_.run([&] { EXPECT_FALSE(deleter.remove(machine_.volume(), manual, machine_.xidOf(manual), "Because.")); });
  EXPECT_THAT(machine_.names(), ElementsAre(manual));
  EXPECT_THAT(*machine_.audit.events.at(0).errorMessage, StartsWith("Protection store exists but is unreadable: "));
}

TEST_F(Deleter, DoesNothingBehindAClosedGate) {
  const auto manual = machine_.add(Kind::manual(), nineOClock);
  HelperSettings settings;
  settings.automaticDeletionEnabled = false;
  machine_.setSettings(settings);
  EXPECT_FALSE(remove(manual, machine_.xidOf(manual)));
  EXPECT_THAT(machine_.audit.events, IsEmpty());
  EXPECT_THAT(
      machine_.log.lines,
      ElementsAre("Automatic deletion blocked by the global safety/health gate for volume " + machine_.uuid.upper()));
}

TEST_F(Deleter, ForgetsAllThatWasKeptAboutTheSnapshot) {
  SchedulePolicy policy = only({});
  policy.protectForeignSnapshots = false;
  machine_.setPolicy(policy);
  const Xid xid = machine_.add(":foreign", nineOClock);
  const VolumeUuid key(machine_.uuid.lower());
  machine_.run([&] {
    EXPECT_EQ(machine_.helper.displayNames.setDisplayName(key, ":foreign", "Its name"), std::nullopt);
    machine_.helper.tags.setTag(machine_.volume(), "tag", [&] { return std::optional(xid); });
  });
  EXPECT_TRUE(remove(":foreign", xid));
  EXPECT_THAT(machine_.names(), IsEmpty());
  machine_.run([&] {
    EXPECT_EQ(machine_.helper.displayNames.displayName(key, ":foreign"), std::nullopt);
    EXPECT_THAT(machine_.helper.tags.tags(machine_.volume()), IsEmpty());
  });
  EXPECT_THAT(machine_.history.deleted, ElementsAre(xid));
  EXPECT_THAT(machine_.history.claimed, ElementsAre(":foreign")) << "indexing gives it away first";
  EXPECT_THAT(machine_.audit.details(), ElementsAre("Because."));
  EXPECT_EQ(machine_.platformLog().back(), "pruned :foreign: Because.");
}

}  // namespace
}  // namespace quillmark
