// The history kept in step with the snapshots on disk, whoever made or deleted them.
#include "PipelineMachine.h"

namespace quillmark {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using namespace std::string_literals;

// A machine whose background work runs, with so many indexed snapshots.
struct Working : PipelineMachine {
  explicit Working(int snapshots) {
    run([&] { store().markBootstrapComplete(), history().startBackgroundWork(); });
    xids = takeSeveral(snapshots);
  }
  void reconcileNow() {
    run([&] { history().reconcile(key); });
    simulation.runFor(11s);
  }
  // Somebody made it writable for a while.
  void tamperWith(Xid xid, std::uint64_t change) {
    volumes.change(uuid, [&](sim::SimVolume& volume) {
      for (sim::SimSnapshot& snapshot : volume.snapshots) {
        if (snapshot.xid != xid) continue;
        snapshot.lastChange = change;
        snapshot.tree.write("/tampered", static_cast<std::int64_t>(change));
      }
    });
  }
  std::vector<Xid> xids;
};

TEST(Reconciliation, SnapshotsDeletedBehindOurBackLeaveTheChain) {
  Working machine(4);
  machine.destroy(machine.xids[1]);
  machine.destroy(machine.xids[3]);
  machine.reconcileNow();
  EXPECT_EQ(machine.ready(), (Xids{machine.xids[0], machine.xids[2]}));
  EXPECT_EQ(machine.complaint(), "");
  EXPECT_EQ(machine.here().caches.dropped, (Xids{machine.xids[1], machine.xids[3]}));
}

// Goal:   what a full disk kept of a deletion from the history is made good once there is room, without a new snapshot.
// Method: the n-th write fails for n = 1, 2, ... until none does any more, at both ends of the chain and inside it.
TEST(Reconciliation, ADeletionThatAFullDiskCutOffIsMadeGoodByTheHourlyPass) {
  for (const std::size_t deleted : {0u, 1u, 2u}) {
    bool fired = true;
    std::uint64_t n = 1;
    for (; fired; ++n) {
      SCOPED_TRACE(testing::Message() << "deleted " << deleted << ", failed at write " << n);
      Working machine(3);
      const VolumeInfo volume = [&] {
        VolumeInfo found;
        machine.run([&] { found = machine.volume(); });
        return found;
      }();
      const Xid gone = machine.xids[deleted];
      machine.destroy(gone);
      machine.here().sim.files().setPlan(
          {.seed = n, .fault = sim::Fault::fail, .atCall = n, .only = sim::PosixCall::write, .error = ENOSPC});
      machine.run([&] { machine.history().snapshotsDeleted(volume, {gone}); });
      machine.settle();
      fired = machine.here().sim.files().faultFired();
      machine.here().sim.files().setPlan({});
      EXPECT_THAT(machine.here().caches.dropped, testing::Contains(gone)) << "nobody gets an old comparison";
      ASSERT_EQ(machine.complaint(), "");
      machine.simulation.runFor(std::chrono::hours(1));
      Xids left(machine.xids.begin(), machine.xids.end());
      left.erase(gone);
      ASSERT_EQ(machine.ready(), left);
      machine.run([&] {
        const auto row = machine.store().volumeState(machine.key);
        ASSERT_TRUE(row);
        ASSERT_EQ(row->baseline, *left.begin());
        ASSERT_EQ(row->head, *left.rbegin());
      });
      ASSERT_EQ(machine.complaint(), "");
    }
    EXPECT_GT(n, 2u);
  }
}

TEST(Reconciliation, SnapshotsThatSomebodyChangedLoseTheirIndexAndTheNewestGetsItAnew) {
  Working machine(4);
  machine.tamperWith(machine.xids[1], 900);
  machine.tamperWith(machine.xids[3], 901);
  EXPECT_NE(machine.complaint(), "");
  machine.reconcileNow();
  EXPECT_EQ(machine.ready(), (Xids{machine.xids[0], machine.xids[2], machine.xids[3]}));
  EXPECT_EQ(machine.complaint(), "");
  EXPECT_EQ(machine.here().caches.dropped, (Xids{machine.xids[1], machine.xids[3]}));
  EXPECT_THAT(machine.logged("was changed"), SizeIs(2));
  machine.reconcileNow();
  EXPECT_THAT(machine.logged("was changed"), SizeIs(2));
  machine.tamperWith(machine.xids[3], 902);
  machine.reconcileNow();
  EXPECT_EQ(machine.complaint(), "");
  machine.restart();
  machine.run([&] { machine.history().startBackgroundWork(); });
  machine.settle();
  EXPECT_THAT(machine.logged("was changed"), IsEmpty());
  EXPECT_EQ(machine.ready(), (Xids{machine.xids[0], machine.xids[2], machine.xids[3]}));
  // Also where a newer one is there already.
  machine.tamperWith(machine.xids[2], 903);
  machine.tamperWith(machine.xids[3], 904);
  const Xid next = machine.take();
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{machine.xids[0], machine.xids[2], machine.xids[3], next}));
  EXPECT_EQ(machine.complaint(), "");
}

TEST(Reconciliation, TellsOfTenThatAreGoneAndCountsTheRest) {
  Working machine(14);
  std::vector<std::string> names;
  for (std::size_t i = 1; i <= 12; ++i) {
    names.push_back(machine.nameOf(machine.xids[i]));
    machine.destroy(machine.xids[i]);
  }
  machine.reconcileNow();
  const auto lines = machine.logged("history reconcile: ");
  ASSERT_THAT(lines, SizeIs(12));
  EXPECT_EQ(lines.front(),
            "history reconcile: 12 indexed snapshot(s) no longer exist on volume Data; dropping their indexes");
  for (std::size_t i = 0; i < 10; ++i) EXPECT_THAT(lines[i + 1], HasSubstr(names[i]));
  EXPECT_EQ(lines.back(), "history reconcile:   … and 2 more");
  EXPECT_EQ(machine.complaint(), "");
}

TEST(Reconciliation, AListingThatFailsDropsNothing) {
  Working machine(2);
  machine.volumes.failNext(sim::SimCall::list, EIO);
  machine.reconcileNow();
  EXPECT_EQ(machine.ready(), Xids(machine.xids.begin(), machine.xids.end()));
  EXPECT_THAT(machine.logged("history reconcile failed"),
              ElementsAre(StartsWith("history reconcile failed for Data: fs_snapshot_list failed: ")));
}

TEST(Reconciliation, ExternalSnapshotsNewerThanTheHeadAreCaughtUpWithTheNextOfOurs) {
  Working machine(0);
  const Xid older = machine.add("other.tool-");
  const Xid head = machine.takeSeveral(1).front();
  machine.write("/theirs", 1);
  const Xid newer = machine.add("other.tool-");
  const Xid systems = machine.add("com.apple.os.update-");
  machine.write("/ours", 1);
  machine.reconcileNow();
  EXPECT_EQ(machine.ready(), (Xids{head}));  // nobody asked for external ones yet
  const Xid ours = machine.takeSeveral(1).front();
  EXPECT_EQ(machine.ready(), (Xids{head, newer, ours}));
  EXPECT_EQ(machine.pending(), Xids());
  EXPECT_EQ(machine.complaint(), "");
  EXPECT_THAT(machine.logged("catch-up"),
              ElementsAre("history catch-up: queueing 1 external snapshot(s) on Data created since the last index"));
  static_cast<void>(older), static_cast<void>(systems);
}

TEST(Reconciliation, AFailingCatchUpDoesNotHoldUpTheSnapshotItself) {
  Working machine(1);
  machine.volumes.failNext(sim::SimCall::list, EIO);
  const Xid xid = machine.take();
  machine.settle();
  EXPECT_THAT(machine.logged("catch-up"), ElementsAre(StartsWith("history catch-up skipped on Data: ")));
  EXPECT_EQ(machine.ready(), (Xids{machine.xids[0], xid}));
}

TEST(Reconciliation, OwnSnapshotsThatWereNeverToldOfAreIndexed) {
  Working machine(1);
  machine.write("/more", 3);
  const Xid own = machine.add();
  const Xid external = machine.add("other.tool-");
  const Xid systems = machine.add("com.apple.os.update-");
  machine.reconcileNow();
  EXPECT_EQ(machine.ready(), (Xids{machine.xids[0], own}));
  EXPECT_THAT(machine.logged("registering"),
              ElementsAre("history reconcile: registering 1 unrecorded snapshot(s) on Data"));
  EXPECT_EQ(machine.complaint(), "");
  static_cast<void>(external), static_cast<void>(systems);
}

TEST(Reconciliation, AnOwnSnapshotBelowTheHeadIsReportedOnceAndJoinsWithAReindex) {
  Working machine(0);
  const Xid stranded = machine.add();
  const Xid head = machine.takeSeveral(1).front();
  machine.simulation.runFor(3h);
  EXPECT_THAT(machine.logged("cannot join"),
              ElementsAre("history reconcile: " + machine.nameOf(stranded) + " xid=" + std::to_string(stranded.value) +
                          " on Data is below the index head (" + std::to_string(head.value) +
                          ") and cannot join the chain; it stays unindexed until the volume is re-indexed"));
  EXPECT_EQ(machine.ready(), (Xids{head}));
  machine.run([&] { machine.history().reindexVolume(machine.volume()); });
  EXPECT_EQ(machine.ready(), (Xids{stranded, head}));
  EXPECT_EQ(machine.complaint(), "");
}

TEST(Reconciliation, ABurstOfChangesCostsOnePass) {
  Working machine(1);
  machine.simulation.runFor(30s);
  int listings = 0;
  machine.volumes.watchCalls([&](sim::SimCall call, const std::string&) { listings += call == sim::SimCall::list; });
  for (int i = 0; i < 10; ++i) {
    machine.run([&] { machine.history().reconcile(machine.key); });
    machine.simulation.runFor(900ms);
  }
  machine.simulation.runFor(20s);
  const int burst = std::exchange(listings, 0);
  machine.reconcileNow();
  EXPECT_EQ(burst, listings);
  EXPECT_GT(burst, 0);
}

TEST(Reconciliation, LooksHourlyOfItselfButNotAtBackupTargetsAndVolumesLeftOut) {
  Working machine(1);
  Uuid vault = machine.uuid, leftOut = machine.uuid;
  vault.bytes[0] = 1, leftOut.bytes[0] = 2;
  sim::SimVolume disk = sim::makeSimVolume(vault, "Vault", "/Volumes/Vault", "disk2s1");
  disk.description.role = "Backup"s;
  disk.description.deviceInternal = false;
  machine.volumes.add(disk);
  machine.volumes.add(sim::makeSimVolume(leftOut, "Left", "/Volumes/Left", "disk3s1"));
  machine.untracked.insert(leftOut.lower());
  const std::string own = std::string(SnapshotNameInfo::prefix) + "manual.";
  const Xid here = machine.add(own);
  (void)machine.add(own, vault);
  (void)machine.add(own, leftOut);
  machine.simulation.runFor(59min);
  EXPECT_EQ(machine.ready(), Xids(machine.xids.begin(), machine.xids.end()));
  const int cleanups = machine.restoreCleanups;
  machine.simulation.runFor(2min);
  EXPECT_EQ(machine.ready(), (Xids{machine.xids[0], here}));
  EXPECT_EQ(machine.ready(VolumeUuid(vault.lower())), Xids());
  EXPECT_EQ(machine.ready(VolumeUuid(leftOut.lower())), Xids());
  EXPECT_EQ(machine.restoreCleanups, cleanups + 1);
}

TEST(Reconciliation, TheHourlyTickTakesAwayIndexMountsThatStayed) {
  Working machine(1);
  // The first unmount of the scan fails.
  machine.volumes.failNext(sim::SimCall::unmount, EIO);
  const Xid xid = machine.take();
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{machine.xids[0], xid}));
  EXPECT_THAT(machine.mountPoints(), ElementsAre(machine.indexPath(xid)));
  EXPECT_THAT(machine.logged("could not unmount"), SizeIs(1));
  machine.simulation.runFor(1h);
  EXPECT_THAT(machine.mountPoints(), IsEmpty());
}

TEST(Reconciliation, DeletionsThatWeAreToldOfAreMergedAndTheirCachesGo) {
  Working machine(3);
  machine.destroy(machine.xids[1]);
  machine.run([&] {
    machine.history().snapshotsDeleted(machine.volume(), {});
    machine.history().snapshotsDeleted(machine.volume(), {machine.xids[1]});
  });
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{machine.xids[0], machine.xids[2]}));
  EXPECT_EQ(machine.complaint(), "");
  EXPECT_EQ(machine.here().caches.dropped, (Xids{machine.xids[1]}));
}

TEST(Reconciliation, HealthNamesPendingCleanups) {
  Working machine(0);
  machine.pendingCleanups = {"/a", "/b"};
  EXPECT_EQ(machine.health(), (HelperSubsystemHealth{HelperSubsystemState::degraded,
                                                     "Restore cleanup pending: /a | Restore cleanup pending: /b"}));
  machine.run([&] { machine.store().setVolumeState(machine.key, HistoryVolumeState::unavailable); });
  EXPECT_EQ(machine.health(), (HelperSubsystemHealth{HelperSubsystemState::unavailable,
                                                     "Version history is unavailable for Data [" + machine.key.text() +
                                                         "]. Use Re-index on the affected volume to rebuild it."}));
}

}  // namespace
}  // namespace quillmark
