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
std::unique_ptr<PipelineMachine> machineWith(int snapshots, std::vector<Xid>& xids) {
  auto machine = std::make_unique<PipelineMachine>();
  machine->run([&] { machine->store().markBootstrapComplete(), machine->history().startBackgroundWork(); });
  xids = machine->takeSeveral(snapshots);
  return machine;
}
void reconcileNow(PipelineMachine& machine) {
  machine.run([&] { machine.history().reconcile(machine.key); });
  machine.simulation.runFor(11s);
}

TEST(Reconciliation, SnapshotsDeletedBehindOurBackLeaveTheChain) {
  std::vector<Xid> xids;
  const auto machine = machineWith(4, xids);
  machine->destroy(xids[1]);
  machine->destroy(xids[3]);
  reconcileNow(*machine);
  EXPECT_EQ(machine->ready(), (Xids{xids[0], xids[2]}));
  EXPECT_EQ(machine->complaint(), "");
  EXPECT_EQ(machine->here().caches.dropped, (Xids{xids[1], xids[3]}));
}

// Somebody made it writable for a while.
void tamperWith(PipelineMachine& machine, Xid xid, std::uint64_t change) {
  machine.volumes.change(machine.uuid, [&](sim::SimVolume& volume) {
    for (sim::SimSnapshot& snapshot : volume.snapshots) {
      if (snapshot.xid != xid) continue;
      snapshot.lastChange = change;
      snapshot.tree.write("/tampered", static_cast<std::int64_t>(change));
    }
  });
}

TEST(Reconciliation, SnapshotsThatSomebodyChangedLoseTheirIndexAndTheNewestGetsItAnew) {
  std::vector<Xid> xids;
  const auto machine = machineWith(4, xids);
  tamperWith(*machine, xids[1], 900);
  tamperWith(*machine, xids[3], 901);
  EXPECT_NE(machine->complaint(), "");
  reconcileNow(*machine);
  EXPECT_EQ(machine->ready(), (Xids{xids[0], xids[2], xids[3]}));
  EXPECT_EQ(machine->complaint(), "");
  EXPECT_EQ(machine->here().caches.dropped, (Xids{xids[1], xids[3]}));
  EXPECT_THAT(machine->logged("was changed"), SizeIs(2));
  reconcileNow(*machine);
  EXPECT_THAT(machine->logged("was changed"), SizeIs(2));
  tamperWith(*machine, xids[3], 902);
  reconcileNow(*machine);
  EXPECT_EQ(machine->complaint(), "");
  machine->restart();
  machine->run([&] { machine->history().startBackgroundWork(); });
  machine->settle();
  EXPECT_THAT(machine->logged("was changed"), IsEmpty());
  EXPECT_EQ(machine->ready(), (Xids{xids[0], xids[2], xids[3]}));
  // Also where a newer one is there already.
  tamperWith(*machine, xids[2], 903);
  tamperWith(*machine, xids[3], 904);
  const Xid next = machine->take();
  machine->settle();
  EXPECT_EQ(machine->ready(), (Xids{xids[0], xids[2], xids[3], next}));
  EXPECT_EQ(machine->complaint(), "");
}

TEST(Reconciliation, TellsOfTenThatAreGoneAndCountsTheRest) {
  std::vector<Xid> xids;
  const auto machine = machineWith(14, xids);
  std::vector<std::string> names;
  for (std::size_t i = 1; i <= 12; ++i) {
    names.push_back(machine->nameOf(xids[i]));
    machine->destroy(xids[i]);
  }
  reconcileNow(*machine);
  const auto lines = machine->logged("history reconcile: ");
  ASSERT_THAT(lines, SizeIs(12));
  EXPECT_EQ(lines.front(),
            "history reconcile: 12 indexed snapshot(s) no longer exist on volume Data; dropping their indexes");
  for (std::size_t i = 0; i < 10; ++i) EXPECT_THAT(lines[i + 1], HasSubstr(names[i]));
  EXPECT_EQ(lines.back(), "history reconcile:   … and 2 more");
  EXPECT_EQ(machine->complaint(), "");
}

TEST(Reconciliation, AListingThatFailsDropsNothing) {
  std::vector<Xid> xids;
  const auto machine = machineWith(2, xids);
  machine->volumes.failNext(sim::SimCall::list, EIO);
  reconcileNow(*machine);
  EXPECT_EQ(machine->ready(), Xids(xids.begin(), xids.end()));
  EXPECT_THAT(machine->logged("history reconcile failed"),
              ElementsAre(StartsWith("history reconcile failed for Data: fs_snapshot_list failed: ")));
}

TEST(Reconciliation, ExternalSnapshotsNewerThanTheHeadAreCaughtUpWithTheNextOfOurs) {
  std::vector<Xid> xids;
  const auto machine = machineWith(0, xids);
  const Xid older = machine->add("other.tool-");
  const Xid head = machine->takeSeveral(1).front();
  machine->write("/theirs", 1);
  const Xid newer = machine->add("other.tool-");
  const Xid systems = machine->add("com.apple.os.update-");
  machine->write("/ours", 1);
  reconcileNow(*machine);
  EXPECT_EQ(machine->ready(), (Xids{head}));  // nobody asked for external ones yet
  const Xid ours = machine->takeSeveral(1).front();
  EXPECT_EQ(machine->ready(), (Xids{head, newer, ours}));
  EXPECT_EQ(machine->pending(), Xids());
  EXPECT_EQ(machine->complaint(), "");
  EXPECT_THAT(machine->logged("catch-up"),
              ElementsAre("history catch-up: queueing 1 external snapshot(s) on Data created since the last index"));
  static_cast<void>(older), static_cast<void>(systems);
}

TEST(Reconciliation, AFailingCatchUpDoesNotHoldUpTheSnapshotItself) {
  std::vector<Xid> xids;
  const auto machine = machineWith(1, xids);
  machine->volumes.failNext(sim::SimCall::list, EIO);
  const Xid xid = machine->take();
  machine->settle();
  EXPECT_THAT(machine->logged("catch-up"), ElementsAre(StartsWith("history catch-up skipped on Data: ")));
  EXPECT_EQ(machine->ready(), (Xids{xids[0], xid}));
}

TEST(Reconciliation, OwnSnapshotsThatWereNeverToldOfAreIndexed) {
  std::vector<Xid> xids;
  const auto machine = machineWith(1, xids);
  machine->write("/more", 3);
  const Xid own = machine->add();
  const Xid external = machine->add("other.tool-");
  const Xid systems = machine->add("com.apple.os.update-");
  reconcileNow(*machine);
  EXPECT_EQ(machine->ready(), (Xids{xids[0], own}));
  EXPECT_THAT(machine->logged("registering"),
              ElementsAre("history reconcile: registering 1 unrecorded snapshot(s) on Data"));
  EXPECT_EQ(machine->complaint(), "");
  static_cast<void>(external), static_cast<void>(systems);
}

TEST(Reconciliation, AnOwnSnapshotBelowTheHeadIsReportedOnceAndJoinsWithAReindex) {
  std::vector<Xid> xids;
  const auto machine = machineWith(0, xids);
  const Xid stranded = machine->add();
  const Xid head = machine->takeSeveral(1).front();
  machine->simulation.runFor(3h);
  EXPECT_THAT(machine->logged("cannot join"),
              ElementsAre("history reconcile: " + machine->nameOf(stranded) + " xid=" + std::to_string(stranded.value) +
                          " on Data is below the index head (" + std::to_string(head.value) +
                          ") and cannot join the chain; it stays unindexed until the volume is re-indexed"));
  EXPECT_EQ(machine->ready(), (Xids{head}));
  machine->run([&] { machine->history().reindexVolume(machine->volume()); });
  EXPECT_EQ(machine->ready(), (Xids{stranded, head}));
  EXPECT_EQ(machine->complaint(), "");
}

TEST(Reconciliation, ABurstOfChangesCostsOnePass) {
  std::vector<Xid> xids;
  const auto machine = machineWith(1, xids);
  machine->simulation.runFor(30s);
  int listings = 0;
  machine->volumes.watchCalls([&](sim::SimCall call, const std::string&) { listings += call == sim::SimCall::list; });
  for (int i = 0; i < 10; ++i) {
    machine->run([&] { machine->history().reconcile(machine->key); });
    machine->simulation.runFor(900ms);
  }
  machine->simulation.runFor(20s);
  const int burst = std::exchange(listings, 0);
  reconcileNow(*machine);
  EXPECT_EQ(burst, listings);
  EXPECT_GT(burst, 0);
}

TEST(Reconciliation, LooksHourlyOfItselfButNotAtBackupTargetsAndVolumesLeftOut) {
  std::vector<Xid> xids;
  const auto machine = machineWith(1, xids);
  Uuid vault = machine->uuid, leftOut = machine->uuid;
  vault.bytes[0] = 1, leftOut.bytes[0] = 2;
  sim::SimVolume disk = sim::makeSimVolume(vault, "Vault", "/Volumes/Vault", "disk2s1");
  disk.description.role = "Backup"s;
  disk.description.deviceInternal = false;
  machine->volumes.add(disk);
  machine->volumes.add(sim::makeSimVolume(leftOut, "Left", "/Volumes/Left", "disk3s1"));
  machine->untracked.insert(leftOut.lower());
  const std::string own = std::string(SnapshotNameInfo::prefix) + "manual.";
  const Xid here = machine->add(own);
  (void)machine->add(own, vault);
  (void)machine->add(own, leftOut);
  machine->simulation.runFor(59min);
  EXPECT_EQ(machine->ready(), Xids(xids.begin(), xids.end()));
  const int cleanups = machine->restoreCleanups;
  machine->simulation.runFor(2min);
  EXPECT_EQ(machine->ready(), (Xids{xids[0], here}));
  EXPECT_EQ(machine->ready(VolumeUuid(vault.lower())), Xids());
  EXPECT_EQ(machine->ready(VolumeUuid(leftOut.lower())), Xids());
  EXPECT_EQ(machine->restoreCleanups, cleanups + 1);
}

TEST(Reconciliation, TheHourlyTickTakesAwayIndexMountsThatStayed) {
  std::vector<Xid> xids;
  const auto machine = machineWith(1, xids);
  // The first unmount of the scan fails.
  machine->volumes.failNext(sim::SimCall::unmount, EIO);
  const Xid xid = machine->take();
  machine->settle();
  EXPECT_EQ(machine->ready(), (Xids{xids[0], xid}));
  EXPECT_THAT(machine->mountPoints(), ElementsAre(machine->indexPath(xid)));
  EXPECT_THAT(machine->logged("could not unmount"), SizeIs(1));
  machine->simulation.runFor(1h);
  EXPECT_THAT(machine->mountPoints(), IsEmpty());
}

TEST(Reconciliation, DeletionsThatWeAreToldOfAreMergedAndTheirCachesGo) {
  std::vector<Xid> xids;
  const auto machine = machineWith(3, xids);
  machine->destroy(xids[1]);
  machine->run([&] {
    machine->history().snapshotsDeleted(machine->volume(), {});
    machine->history().snapshotsDeleted(machine->volume(), {xids[1]});
  });
  machine->settle();
  EXPECT_EQ(machine->ready(), (Xids{xids[0], xids[2]}));
  EXPECT_EQ(machine->complaint(), "");
  EXPECT_EQ(machine->here().caches.dropped, (Xids{xids[1]}));
}

TEST(Reconciliation, HealthNamesPendingCleanups) {
  std::vector<Xid> xids;
  const auto machine = machineWith(0, xids);
  machine->pendingCleanups = {"/a", "/b"};
  EXPECT_EQ(machine->health(), (HelperSubsystemHealth{HelperSubsystemState::degraded,
                                                      "Restore cleanup pending: /a | Restore cleanup pending: /b"}));
  machine->run([&] { machine->store().setVolumeState(machine->key, HistoryVolumeState::unavailable); });
  EXPECT_EQ(machine->health(),
            (HelperSubsystemHealth{HelperSubsystemState::unavailable,
                                   "Version history is unavailable for Data [" + machine->key.text() +
                                       "]. Use Re-index on the affected volume to rebuild it."}));
}

}  // namespace
}  // namespace quillmark
