// The road of a snapshot from created to indexed, and what may stand in its way.
#include "PipelineMachine.h"
#include "history/HistoryConnection.h"
#include "history/IndexProgress.h"
#include "history/ProgressThrottle.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;
using enum HistoryVolumeState;
using sim::DirectoryCall;

// Does something once, when a scan opens this snapshot's tree or, without one, any.
void onScan(PipelineMachine& machine, std::function<void(const std::string& path)> work) {
  machine.here().sim.directories().watchCalls(
      [work = std::move(work), done = false](DirectoryCall call, const std::string& path) mutable {
        if (call == DirectoryCall::openTree && !std::exchange(done, true)) work(path);
      });
}

TEST(IndexRun, TheFirstSnapshotBecomesTheBaselineAndLaterOnesDeltas) {
  PipelineMachine machine;
  machine.write("/home/letter", 120);
  machine.write("/home/me/photo", 4000);
  const Xid first = machine.take();
  machine.settle();
  EXPECT_EQ(machine.state(), healthy);
  machine.write("/home/letter", 121);
  const Xid second = machine.take();
  machine.settle();

  EXPECT_EQ(machine.ready(), (Xids{first, second}));
  EXPECT_EQ(machine.complaint(), "");
  EXPECT_EQ(machine.state(), healthy);
  EXPECT_THAT(machine.logged("history: "),
              ElementsAre(StartsWith("history: BASELINE built xid=" + std::to_string(first.value) + " entries=5 in "),
                          StartsWith("history: FULL-SCAN delta xid=" + std::to_string(second.value) +
                                     " entries=5 changed=1 in ")));
  ASSERT_THAT(machine.here().audit.events, SizeIs(2));
  const HelperEvent& event = machine.here().audit.events.front();
  EXPECT_EQ(event.kind, HelperEvent::Kind::indexSnapshot);
  EXPECT_EQ(event.client, HelperEvent::Client::helper);
  EXPECT_EQ(event.detail, "Initial baseline index · 5 files");
  EXPECT_EQ(event.snapshotName, machine.nameOf(first));
  EXPECT_TRUE(event.succeeded);
  EXPECT_EQ(machine.here().audit.events.back().detail, "Full-scan index · 5 files");
  EXPECT_THAT(machine.mountPoints(), IsEmpty());
}

// A machine with one indexed snapshot and a second one about to be taken.
std::unique_ptr<PipelineMachine> machineWithBaseline() {
  auto machine = std::make_unique<PipelineMachine>();
  machine->run([&] { machine->store().markBootstrapComplete(); });
  (void)machine->takeSeveral(1);
  machine->write("/home/letter", 5);
  return machine;
}

// The next helper, or the same, after its timers had time for everything: all that is on disk is indexed as it is, and
// nothing is left mounted.
std::string complaintInTheEnd(PipelineMachine& machine) {
  machine.run([&] { machine.history().startBackgroundWork(); });
  machine.simulation.runFor(std::chrono::hours(2));
  Xids all;
  for (const sim::SimSnapshot& snapshot : machine.volumes.snapshots(machine.uuid)) all.insert(snapshot.xid);
  std::string found = machine.complaint();
  if (machine.ready() != all) found += "a snapshot isn't indexed; ";
  if (!machine.pending().empty()) found += "a snapshot is pending; ";
  if (!machine.mountPoints().empty()) found += "a mount is left; ";
  if (machine.health() != HelperSubsystemHealth()) found += *machine.health().detail;
  return found;
}

// Goal:   a helper killed at any moment of the road loses nothing: the next one ends it.
// Method: kill at the n-th call to files, SQLite's among them, or to volumes and directories, for n = 1, 2, ...
TEST(IndexRun, AKillAtAnyStepIsMadeGoodByTheNextHelper) {
  // A snapshot is taken while the helper waits for its end; whether it was killed on the way.
  const auto survives = [](PipelineMachine& machine, FunctionRef<void()> lieInWait) {
    const auto record = machine.record(machine.add());
    VolumeInfo volume;
    machine.run([&] { volume = machine.volume(); });
    lieInWait();
    (void)machine.simulation.run(machine.here().life,
                                 [&] { machine.history().snapshotCreated(volume, record, Forced::no); });
    machine.settle();
    machine.volumes.watchCalls(nullptr);
    machine.here().sim.directories().watchCalls(nullptr);
    machine.here().sim.files().setPlan({});
    const bool isAlive = machine.here().life.isAlive();
    if (!isAlive) machine.restart();
    return isAlive;
  };
  std::uint64_t n = 1;
  for (bool isAlive = false; !isAlive; n += 3) {
    const auto machine = machineWithBaseline();
    isAlive = survives(
        *machine, [&] { machine->here().sim.files().setPlan({.seed = n, .fault = sim::Fault::kill, .atCall = n}); });
    ASSERT_EQ(complaintInTheEnd(*machine), "") << "killed at file call " << n;
  }
  EXPECT_GT(n, 20u);
  n = 1;
  for (bool isAlive = false; !isAlive; ++n) {
    const auto machine = machineWithBaseline();
    std::uint64_t calls = 0;
    const auto count = [&, life = &machine->here().life] {
      if (++calls == n) life->kill();
    };
    isAlive = survives(*machine, [&] {
      machine->volumes.watchCalls([&](sim::SimCall, const std::string&) { count(); });
      machine->here().sim.directories().watchCalls([&](DirectoryCall, const std::string&) { count(); });
    });
    ASSERT_EQ(complaintInTheEnd(*machine), "") << "killed at volume or directory call " << n;
  }
  EXPECT_GT(n, 10u);
}

// Goal:   whatever file call fails once, the history stays sound, and its timers make it good.
// Method: the n-th call to files fails, SQLite's among them.
TEST(IndexRun, AFailureAnywhereLeavesTheChainSoundAndIsMadeGoodByTheTimers) {
  bool fired = true;
  std::uint64_t n = 1;
  for (; fired; n += 2) {
    const auto machine = machineWithBaseline();
    machine->here().sim.files().setPlan({.seed = n, .fault = sim::Fault::fail, .atCall = n});
    const Xid xid = machine->add();
    (void)machine->errorOf(
        [&] { machine->history().snapshotCreated(machine->volume(), machine->record(xid), Forced::no); });
    machine->settle();
    fired = machine->here().sim.files().faultFired();
    machine->here().sim.files().setPlan({});
    ASSERT_EQ(machine->complaint(), "") << "failed at file call " << n;
    ASSERT_EQ(complaintInTheEnd(*machine), "") << "failed at file call " << n;
  }
  EXPECT_GT(n, 20u);
}

TEST(IndexRun, ProgressNeverStepsBackWithinASnapshot) {
  PipelineMachine machine;
  HistoryProviders providers;
  IndexProgress progress(machine.here().life.dispatch(), nullptr, providers);
  const auto shown = [&] { return progress.active().at(0).filesScanned; };
  progress.begin(machine.key, Xid{1});
  progress.counted(machine.key, Xid{1}, 5000);
  progress.counted(machine.key, Xid{1}, 4321);  // what was counted ahead turned out to be excluded
  EXPECT_EQ(shown(), 5000);
  progress.counted(machine.key, Xid{1}, 6000);
  EXPECT_EQ(shown(), 6000);
  progress.begin(machine.key, Xid{2});
  progress.counted(machine.key, Xid{2}, 7);
  EXPECT_EQ(shown(), 7);
}

TEST(IndexRun, SnapshotsTakenDuringARunAreIndexedInTheirOrder) {
  PipelineMachine machine;
  std::vector<Xid> later;
  onScan(machine, [&](const std::string&) {
    for (int i = 0; i < 2; ++i) {
      machine.write("/during" + std::to_string(i), 1);
      later.push_back(machine.add());
    }
    // The younger one is told of first.
    for (const Xid xid : {later[1], later[0]}) {
      machine.history().snapshotCreated(machine.volume(), machine.record(xid), Forced::no);
    }
  });
  const Xid first = machine.take();
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{first, later[0], later[1]}));
  EXPECT_EQ(machine.complaint(), "");
}

TEST(IndexRun, AnyDrawnOrderOfEventsEndsInTheSameHistory) {
  for (std::uint64_t seed = 1; seed <= 12; ++seed) {
    PipelineMachine machine({.seed = seed, .switchPercent = 40});
    std::vector<Xid> xids;
    machine.run([&] {
      for (int i = 0; i < 4; ++i) {
        machine.write("/file" + std::to_string(i), i);
        xids.push_back(machine.add());
        machine.history().snapshotCreated(machine.volume(), machine.record(xids.back()), Forced::no);
      }
    });
    machine.run([&] { machine.history().snapshotsDeleted(machine.volume(), {xids[1]}); });
    machine.destroy(xids[1]);
    machine.settle();
    EXPECT_EQ(machine.ready(), (Xids{xids[0], xids[2], xids[3]})) << "seed " << seed;
    EXPECT_EQ(machine.complaint(), "") << "seed " << seed;
  }
}

TEST(IndexRun, APendingSnapshotBelowTheHeadIsDroppedAndStaysOnDisk) {
  PipelineMachine machine;
  const Xid below = machine.add();
  const Xid head = machine.take();
  machine.settle();
  machine.tell(below);
  machine.settle();
  EXPECT_THAT(
      machine.logged("dropping"),
      ElementsAre("history: dropping pending snapshot xid=" + std::to_string(below.value) +
                  " — the index head has already advanced to " + std::to_string(head.value) +
                  ", and the chain only extends forward. It stays unindexed; re-index the volume to include it."));
  EXPECT_EQ(machine.ready(), (Xids{head}));
  EXPECT_EQ(machine.pending(), Xids());
  EXPECT_THAT(machine.volumes.snapshots(machine.uuid), SizeIs(2));
}

TEST(IndexRun, ASnapshotThatIsGoneBeforeItsTurnIsForgotten) {
  PipelineMachine machine;
  machine.mode = IndexingMode::disabled;
  const Xid gone = machine.take();
  const std::string name = machine.nameOf(gone);
  machine.destroy(gone);
  machine.mode = IndexingMode::fullScan;
  const Xid stays = machine.take();
  machine.settle();
  EXPECT_THAT(machine.logged("forgetting"),
              ElementsAre("history: snapshot " + name + " xid=" + std::to_string(gone.value) +
                          " no longer exists on volume Data; forgetting it"));
  EXPECT_EQ(machine.ready(), (Xids{stays}));
  EXPECT_EQ(machine.pending(), Xids());
}

TEST(IndexRun, WhatCannotBeForgottenEndsTheRunAndIsTriedAgainLater) {
  PipelineMachine machine;
  machine.run([&] { machine.store().markBootstrapComplete(), machine.history().startBackgroundWork(); });
  machine.mode = IndexingMode::disabled;
  const Xid gone = machine.take();
  machine.destroy(gone);
  machine.mode = IndexingMode::fullScan;
  const auto execute = [&](const std::string& sql) {
    machine.run([&] {
      HistoryConnection(machine.here().sim.paths().state("history.sqlite3"), HistoryConnection::Access::readWriteCreate)
          .execute(sql);
    });
  };
  execute("CREATE TRIGGER full BEFORE INSERT ON history_deletions BEGIN SELECT RAISE(FAIL, 'full'); END");
  const Xid stays = machine.take();
  machine.settle();
  EXPECT_THAT(machine.logged("forgetting"), SizeIs(2));
  EXPECT_EQ(machine.pending(), (Xids{gone, stays}));
  EXPECT_EQ(machine.health().state, HelperSubsystemState::degraded);
  execute("DROP TRIGGER full");
  machine.simulation.runFor(10min);
  EXPECT_EQ(machine.ready(), (Xids{stays}));
  EXPECT_EQ(machine.health(), HelperSubsystemHealth());
}

TEST(IndexRun, ASnapshotDeletedDuringARunHoldsUpNobodyAndIsNoFailure) {
  PipelineMachine machine;
  machine.mode = IndexingMode::disabled;
  const Xid first = machine.take(), gone = machine.take(), last = machine.add();
  machine.settle();
  machine.mode = IndexingMode::fullScan;
  onScan(machine, [&](const std::string&) { machine.destroy(gone); });
  machine.tell(last);
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{first, last}));
  EXPECT_EQ(machine.pending(), Xids());
  EXPECT_EQ(machine.health(), HelperSubsystemHealth());
  EXPECT_EQ(machine.complaint(), "");
}

TEST(IndexRun, ASnapshotTakenWhileARunListsTheDiskIsNotTakenForGone) {
  bool happened = true;
  int n = 1;
  for (; happened; ++n) {
    PipelineMachine machine;
    const Xid first = machine.add();
    Xids all{first};
    // Known by now, so that one look at the disk is enough.
    machine.run([&] { (void)machine.here().apfs.listSnapshots(machine.volume()); });
    int calls = 0;
    machine.volumes.watchCalls([&](sim::SimCall, const std::string&) {
      if (++calls != n) return;
      const Xid during = machine.add();
      all.insert(during);
      machine.history().snapshotCreated(machine.volume(), machine.record(during), Forced::no);
    });
    machine.tell(first);
    machine.settle();
    happened = calls >= n;
    EXPECT_EQ(machine.ready(), all) << "at call " << n;
    EXPECT_THAT(machine.logged("forgetting"), IsEmpty()) << "at call " << n;
  }
  EXPECT_GT(n, 4);
}

TEST(IndexRun, OnBatteryWorkWaitsForThePlugUnlessPeopleWantItOtherwise) {
  PipelineMachine machine;
  machine.run([&] { machine.store().markBootstrapComplete(), machine.history().startBackgroundWork(); });
  machine.here().sim.power().onACPower = false;
  machine.indexOnBattery = false;
  const Xid first = machine.take();
  machine.settle();
  EXPECT_EQ(machine.state(), baselinePending);
  EXPECT_EQ(machine.pending(), (Xids{first}));
  machine.simulation.runFor(10min);  // the repair tick holds back as well
  EXPECT_EQ(machine.pending(), (Xids{first}));
  machine.here().sim.power().onACPower = true;
  machine.simulation.runFor(5min);
  EXPECT_EQ(machine.ready(), (Xids{first}));

  machine.here().sim.power().onACPower = false;
  const Xid second = machine.take();
  machine.settle();
  EXPECT_EQ(machine.state(), repairQueued);
  const Xid third = machine.take(Forced::yes);
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{first, second, third}));
  machine.indexOnBattery = true;
  const Xid fourth = machine.take();
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{first, second, third, fourth}));
}

TEST(IndexRun, WhileIndexingIsDisabledSnapshotsAreRegisteredOnly) {
  PipelineMachine machine;
  machine.run([&] { machine.store().markBootstrapComplete(), machine.history().startBackgroundWork(); });
  machine.mode = IndexingMode::disabled;
  const Xid first = machine.take();
  machine.simulation.runFor(10min);
  EXPECT_EQ(machine.pending(), (Xids{first}));
  EXPECT_THAT(machine.here().audit.events, IsEmpty());
  const Xid second = machine.take(Forced::yes);
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{first, second}));
  const Xid third = machine.take();
  machine.mode = IndexingMode::fullScan;
  machine.simulation.runFor(5min);
  EXPECT_EQ(machine.ready(), (Xids{first, second, third}));
}

TEST(IndexRun, AMountThatIsThereAlreadyIsReadPinnedAndLeftAloneUnlessItIsTheIndexsOwn) {
  const std::function<std::string(PipelineMachine&, Xid)> places[] = {
      [](PipelineMachine& machine, Xid xid) { return machine.userPath(xid); },
      [](PipelineMachine&, Xid) { return "/mnt/elsewhere"; },
      [](PipelineMachine& machine, Xid xid) { return machine.indexPath(xid); }};
  for (const auto& place : places) {
    PipelineMachine machine;
    const Xid xid = machine.add();
    const std::string there = place(machine, xid);
    SCOPED_TRACE(there);
    ASSERT_TRUE(machine.volumes.mount(machine.uuid, there, machine.nameOf(xid), mntReadOnly));
    std::string path, reason;
    onScan(machine, [&](const std::string& scanned) {
      path = scanned;
      reason = machine.here().pins.activeReason(scanned).value_or("none");
    });
    machine.tell(xid);
    machine.settle();
    EXPECT_EQ(machine.ready(), (Xids{xid}));
    EXPECT_EQ(path, there);
    EXPECT_EQ(machine.here().pins.activeReason(path), std::nullopt);
    if (there == machine.indexPath(xid)) {
      EXPECT_THAT(machine.mountPoints(), IsEmpty());
    } else {
      EXPECT_THAT(machine.mountPoints(), ElementsAre(there));
    }
    if (there == machine.userPath(xid)) {
      EXPECT_EQ(reason, "a restore or comparison scan is reading from it");
    }
  }
}

TEST(IndexRun, AForeignMountAtTheIndexPathFailsTheRunUntilItIsGone) {
  PipelineMachine machine;
  machine.run([&] { machine.store().markBootstrapComplete(), machine.history().startBackgroundWork(); });
  const Xid first = machine.takeSeveral(1).front();
  const Xid second = machine.add();
  const std::string path = machine.indexPath(second);
  ASSERT_TRUE(machine.volumes.mount(machine.uuid, path, machine.nameOf(first), mntReadOnly));
  machine.tell(second);
  machine.settle();
  const std::string text = "Snapshot mount path " + path + " is occupied by another volume or snapshot";
  EXPECT_THAT(machine.logged("failed"), ElementsAre("snapshot history processing failed: " + text));
  EXPECT_EQ(machine.health().state, HelperSubsystemState::degraded);
  EXPECT_EQ(machine.health().detail, "Data [" + machine.uuid.upper() + "] · " + machine.nameOf(second) + " · XID " +
                                         std::to_string(second.value) + ": " + text);
  EXPECT_THAT(machine.mountPoints(), ElementsAre(path));
  EXPECT_EQ(machine.pending(), (Xids{second}));

  ASSERT_TRUE(machine.volumes.unmount(path, true));
  machine.simulation.runFor(5min);
  EXPECT_EQ(machine.ready(), (Xids{first, second}));
  EXPECT_EQ(machine.health(), HelperSubsystemHealth());
}

TEST(IndexRun, AScanThatFailsLeavesTheChainAndTellsWhy) {
  PipelineMachine machine;
  const Xid first = machine.takeSeveral(1).front();
  const Xid second = machine.add();
  machine.here().sim.directories().fail(DirectoryCall::openTree, machine.indexPath(second), EIO, 1);
  machine.tell(second);
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{first}));
  EXPECT_EQ(machine.pending(), (Xids{second}));
  EXPECT_EQ(machine.complaint(), "");
  EXPECT_THAT(*machine.health().detail, HasSubstr(machine.nameOf(second)));
  const HelperEvent& event = machine.here().audit.events.back();
  EXPECT_FALSE(event.succeeded);
  EXPECT_EQ(event.snapshotName, machine.nameOf(second));
  EXPECT_THAT(event.errorMessage.value_or(""), HasSubstr("Input/output error"));
  EXPECT_THAT(machine.mountPoints(), IsEmpty());
  const sim::SimVolume data = machine.volumes.volumes().front();
  machine.volumes.take(machine.uuid);
  EXPECT_EQ(machine.health(), HelperSubsystemHealth()) << "nobody can do anything about it";
  machine.volumes.add(data);
  EXPECT_EQ(machine.health().state, HelperSubsystemState::degraded);
  machine.run([&] { machine.history().forgetRepairFailure(machine.key); });
  EXPECT_EQ(machine.health(), HelperSubsystemHealth());
}

TEST(IndexRun, ASnapshotInUseIsNoFailureOfTheHistorys) {
  PipelineMachine machine;
  machine.volumes.failNext(sim::SimCall::mount, EBUSY);
  const Xid xid = machine.take();
  machine.settle();
  EXPECT_EQ(machine.pending(), (Xids{xid}));
  EXPECT_EQ(machine.health(), HelperSubsystemHealth());
  EXPECT_THAT(machine.logged("already mounted"), Not(IsEmpty()));
}

// Somebody takes the index mount away before the walk opens it: the empty directory below must not become the tree.
TEST(IndexRun, AnEmptyDirectoryUnderALostMountIsNeverTakenForTheSnapshot) {
  PipelineMachine machine;
  const Xid first = machine.takeSeveral(1).front();
  const Xid second = machine.add();
  machine.here().sim.directories().setOffersWhole(false);
  onScan(machine, [&](const std::string& path) {
    ASSERT_TRUE(machine.volumes.unmount(path, true));
    ASSERT_TRUE(machine.volumes.mount(machine.uuid, path, machine.nameOf(first), mntReadOnly));
  });
  machine.tell(second);
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{first}));
  EXPECT_THAT(*machine.health().detail, HasSubstr("was unmounted while it was read"));
  EXPECT_EQ(machine.complaint(), "");
}

TEST(IndexRun, ProgressIsToldFromBeginToDone) {
  PipelineMachine machine;
  for (int i = 0; i < 11'000; ++i) machine.write("/d" + std::to_string(i % 7) + "/f" + std::to_string(i), 1);
  std::vector<ActiveIndexProgress> during;
  machine.here().sim.directories().setOffersWhole(false);
  machine.here().sim.directories().watchCalls([&](DirectoryCall call, const std::string&) {
    if (call == DirectoryCall::open) machine.here().life.delay(400ms), during = machine.history().activeIndexProgress();
  });
  const Xid xid = machine.take();
  machine.simulation.runFor(1min);
  ASSERT_GE(machine.pushes.size(), 4u);
  EXPECT_EQ(machine.pushes.front(), (ActiveIndexProgress{machine.uuid.lower(), xid, "indexing", 0}));
  EXPECT_EQ(machine.pushes.back(), (ActiveIndexProgress{machine.uuid.lower(), Xid{0}, "done", 0}));
  const ActiveIndexProgress counted = machine.pushes[machine.pushes.size() - 2];
  EXPECT_EQ(counted.phase, "indexing");
  EXPECT_EQ(counted.filesScanned, 11'008);
  EXPECT_THAT(during, ElementsAre(::testing::Field(&ActiveIndexProgress::snapshotXID, xid)));
  machine.run([&] { EXPECT_THAT(machine.history().activeIndexProgress(), IsEmpty()); });
}

TEST(ProgressThrottle, LetsThroughOnceInAnInterval) {
  sim::Simulation simulation;
  sim::Life& life = simulation.startLife("life");
  std::string passed;
  simulation.run(life, [&] {
    ProgressThrottle throttle(life.dispatch(), 300ms);
    for (int i = 0; i < 10; ++i, life.delay(100ms)) passed += throttle.allows() ? 'x' : '.';
  });
  EXPECT_EQ(passed, "x..x..x..x");
}

// Goal:   people who unmount their volume in the midst of a scan get their device back within two seconds, and the
//         history has lost nothing by it.
TEST(IndexRun, AScanGivesItsFileSystemBackWhenItsPeopleUnmountIt) {
  PipelineMachine machine;
  machine.run([&] { machine.store().markBootstrapComplete(), machine.history().startBackgroundWork(); });
  for (int i = 0; i < 300; ++i) machine.write("/f" + std::to_string(i), 1);
  const sim::SimVolume disk = machine.volumes.volumes().front();
  int reads = 0;
  machine.here().sim.directories().setOffersWhole(false);
  machine.here().sim.directories().watchCalls([&](DirectoryCall call, const std::string&) {
    if (call != DirectoryCall::readRecords) return;
    if (++reads == 5) machine.volumes.takeButMounts(machine.uuid);
    machine.here().life.delay(200ms);
  });
  const Xid xid = machine.take();
  machine.simulation.runFor(3s);
  EXPECT_THAT(machine.mountPoints(), IsEmpty());
  EXPECT_LT(reads, 30);
  EXPECT_EQ(machine.pending(), (Xids{xid}));
  EXPECT_EQ(machine.health(), HelperSubsystemHealth());
  EXPECT_THAT(machine.here().audit.events, IsEmpty());
  machine.simulation.runFor(20min);  // the repair tick finds no volume, and says nothing
  EXPECT_EQ(machine.health(), HelperSubsystemHealth());

  machine.here().sim.directories().watchCalls(nullptr);
  machine.volumes.add(disk);
  machine.simulation.runFor(5min);
  EXPECT_EQ(machine.ready(), (Xids{xid}));
  EXPECT_EQ(machine.complaint(), "");
}

TEST(IndexRun, AHelperThatLeavesEndsItsScanAndTakesItsMountAway) {
  PipelineMachine machine;
  const Xid first = machine.beginSlowScan();
  EXPECT_THAT(machine.mountPoints(), SizeIs(1));
  const MonotonicTime before = machine.simulation.clock().monotonic();
  machine.run([&] { machine.history().stopBackgroundWork(); });
  EXPECT_LT(machine.simulation.clock().monotonic() - before, 2s);
  EXPECT_THAT(machine.mountPoints(), IsEmpty());
  const Xid second = machine.take();
  machine.simulation.runFor(2h);
  EXPECT_EQ(machine.pending(), (Xids{first, second}));
  EXPECT_EQ(machine.health(), HelperSubsystemHealth());
}

}  // namespace
}  // namespace quillmark
