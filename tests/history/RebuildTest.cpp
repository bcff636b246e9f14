// What people throw away and have made anew, and what a fresh database is filled with.
#include "PipelineMachine.h"

namespace quillmark {
namespace {

using sim::DirectoryCall;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const std::string own = std::string(SnapshotNameInfo::prefix) + "manual.";

// Asks for one snapshot's re-index; the refusal, or "nothing".
std::string reindex(PipelineMachine& machine, Xid xid) {
  const std::string refusal = machine.errorOf([&] { machine.history().reindexSnapshot(machine.volume(), xid); });
  if (refusal != "nothing") {
    EXPECT_EQ(machine.lastError->domain(), snapshotHistoryDomain);
    EXPECT_EQ(machine.lastError->code(), 20);
  }
  machine.settle();
  return refusal;
}

TEST(Reindex, RefusesWhatTheChainForbids) {
  PipelineMachine machine;
  const Xid below = machine.add();
  const std::vector<Xid> xids = machine.takeSeveral(3);
  const Xid systems = machine.add("com.apple.os.update-");
  EXPECT_EQ(reindex(machine, Xid{4711}), "Snapshot no longer exists on this volume");
  EXPECT_EQ(reindex(machine, systems), "macOS system snapshots can't be mounted for indexing");
  EXPECT_EQ(reindex(machine, below),
            "This snapshot is older than the newest indexed snapshot, and the index chain only extends forward. Use "
            "\"Re-index Snapshots\" on the volume to rebuild from the oldest snapshot.");
  for (const Xid inner : {xids[0], xids[1]}) {
    EXPECT_EQ(reindex(machine, inner),
              "Only the newest indexed snapshot can be re-indexed in place, because each snapshot's delta links to its "
              "neighbors. Use \"Re-index Snapshots\" on the volume instead.");
  }
  machine.mode = IndexingMode::disabled;
  const Xid queued = machine.take();
  machine.settle();
  EXPECT_EQ(reindex(machine, xids[2]),
            "Newer snapshots are queued for indexing; try again once they finish, or re-index the whole volume.");
  EXPECT_EQ(machine.ready(), Xids(xids.begin(), xids.end()));
  EXPECT_EQ(machine.pending(), (Xids{queued}));
  EXPECT_EQ(machine.complaint(), "");
}

TEST(Reindex, TheHeadStepsBackAndForwardAgain) {
  PipelineMachine machine;
  machine.mode = IndexingMode::disabled;  // asked for, it runs all the same
  std::vector<Xid> xids;
  for (int i = 0; i < 3; ++i) {
    machine.write("/file", i);
    xids.push_back(machine.take(Forced::yes));
    machine.settle();
  }
  EXPECT_EQ(reindex(machine, xids[2]), "nothing");
  EXPECT_EQ(machine.ready(), Xids(xids.begin(), xids.end()));
  EXPECT_EQ(machine.complaint(), "");
  EXPECT_EQ(machine.here().caches.dropped, (Xids{xids[2]}));
  EXPECT_THAT(machine.logged("FULL-SCAN delta xid=" + std::to_string(xids[2].value)), SizeIs(2));
}

TEST(Reindex, TheSoleOneIsRebuiltAndAnUnknownNewerOneIsTakenIn) {
  PipelineMachine machine;
  const Xid sole = machine.takeSeveral(1).front();
  EXPECT_EQ(reindex(machine, sole), "nothing");
  EXPECT_THAT(machine.logged("BASELINE"), SizeIs(2));
  EXPECT_THAT(machine.here().caches.purged, ElementsAre(machine.uuid.lower()));
  const Xid external = machine.add("other.tool-");
  EXPECT_EQ(reindex(machine, external), "nothing");
  EXPECT_EQ(machine.ready(), (Xids{sole, external}));
  EXPECT_EQ(machine.complaint(), "");
}

TEST(Reindex, TheSoleOneTakesThoseAlongThatWait) {
  PipelineMachine machine;
  const Xid sole = machine.takeSeveral(1).front();
  machine.mode = IndexingMode::disabled;
  const Xid waiting = machine.take();
  EXPECT_EQ(reindex(machine, sole), "nothing");
  EXPECT_EQ(machine.ready(), (Xids{sole, waiting}));
  EXPECT_EQ(machine.complaint(), "");
}

TEST(Rebuild, AVolumeIsMadeAnewFromAllItsSnapshotsButTheSystems) {
  PipelineMachine machine;
  machine.mode = IndexingMode::disabled;
  machine.indexOnBattery = false;
  machine.here().sim.power().onACPower = false;
  const Xid external = machine.add("other.tool-");
  const Xid systems = machine.add("com.apple.os.update-");
  const Xid ours = machine.add();
  machine.run([&] { machine.history().reindexVolume(machine.volume()); });
  EXPECT_EQ(machine.ready(), (Xids{external, ours}));
  EXPECT_EQ(machine.complaint(), "");
  EXPECT_THAT(machine.logged("re-index"), ElementsAre("re-index: registered 2 snapshot(s) on Data for rebuild"));
  EXPECT_EQ(machine.pushes.back().phase, "done");
  static_cast<void>(systems);

  machine.volumes.failNext(sim::SimCall::list, EIO);
  const std::string failure = machine.errorOf([&] { machine.history().reindexVolume(machine.volume()); });
  EXPECT_THAT(failure, HasSubstr("fs_snapshot_list failed"));
  EXPECT_EQ(machine.ready(), (Xids{external, ours})) << "nothing is thrown away that can't be made anew";
}

struct TwoVolumes : PipelineMachine {
  TwoVolumes() {
    other.bytes[0] = 7;
    volumes.add(sim::makeSimVolume(other, "Other", "/Volumes/Other", "disk4s1"));
    for (int i = 0; i < 2; ++i) {
      write("/a" + std::to_string(i), 1);
      write("/b" + std::to_string(i), 1, other);
      data.insert(add(own));
      others.insert(add(own, other));
    }
  }
  [[nodiscard]] VolumeUuid otherKey() const { return VolumeUuid(other.lower()); }
  [[nodiscard]] bool asksForBootstrap() {
    bool asks = false;
    run([&] { asks = history().needsExistingSnapshotBootstrap(); });
    return asks;
  }
  Uuid other = uuid;
  Xids data, others;
};

TEST(Rebuild, AFreshDatabaseIsFilledOnceWithOwnSnapshots) {
  TwoVolumes machine;
  const Xid external = machine.add("other.tool-");
  EXPECT_TRUE(machine.asksForBootstrap());
  machine.run([&] {
    machine.history().bootstrapLater();
    machine.history().waitForWork();
    EXPECT_EQ(machine.store().readyXIDs(machine.key), machine.data);
    machine.history().startBackgroundWork();
  });
  machine.settle();
  EXPECT_EQ(machine.ready(), machine.data);
  EXPECT_EQ(machine.ready(machine.otherKey()), machine.others);
  EXPECT_THAT(machine.logged("bootstrap"), ElementsAre("history bootstrap completed for 2 volume(s)"));
  EXPECT_FALSE(machine.asksForBootstrap());
  EXPECT_THAT(machine.pushes, Contains(::testing::Field(&ActiveIndexProgress::phase, "queued")));
  machine.restart();
  EXPECT_FALSE(machine.asksForBootstrap());
  EXPECT_EQ(machine.complaint(), "");
  static_cast<void>(external);
}

TEST(Rebuild, ABootstrapThatFailsIsRepeatedByTheNextHelper) {
  TwoVolumes machine;
  machine.here().sim.directories().watchCalls([](DirectoryCall, const std::string&) {});
  for (const Xid xid : machine.data) {
    machine.here().sim.directories().fail(DirectoryCall::openTree, machine.indexPath(xid), EIO);
  }
  machine.run([&] { machine.history().bootstrap(); });
  machine.settle();
  EXPECT_EQ(machine.ready(machine.otherKey()), machine.others);
  EXPECT_EQ(machine.pending(), machine.data);
  EXPECT_THAT(machine.logged("bootstrap"),
              ElementsAre("history bootstrap was incomplete; it will retry after the next helper launch"));
  EXPECT_THAT(machine.logged("(re)index failed"), SizeIs(1));
  EXPECT_EQ(machine.health().state, HelperSubsystemState::degraded);
  EXPECT_TRUE(machine.asksForBootstrap());
  machine.restart();
  EXPECT_TRUE(machine.asksForBootstrap());
  machine.run([&] { machine.history().bootstrap(); });
  machine.settle();
  EXPECT_EQ(machine.ready(), machine.data);
  EXPECT_FALSE(machine.asksForBootstrap());
}

TEST(Rebuild, AVolumeWhoseSnapshotsCannotBeListedKeepsItsHistory) {
  PipelineMachine machine;
  const std::vector<Xid> xids = machine.takeSeveral(2);
  machine.volumes.failNext(sim::SimCall::list, EIO);
  machine.run([&] { machine.history().bootstrap(); });
  machine.settle();
  EXPECT_EQ(machine.ready(), Xids(xids.begin(), xids.end()));
  EXPECT_THAT(machine.logged("(re)index failed"), SizeIs(1));
  EXPECT_EQ(machine.health().state, HelperSubsystemState::degraded);
  EXPECT_THAT(machine.here().caches.purged, IsEmpty());
  machine.run([&] { EXPECT_TRUE(machine.history().needsExistingSnapshotBootstrap()); });
  EXPECT_EQ(machine.complaint(), "");
}

TEST(Rebuild, WithoutAVolumeTheBootstrapWaits) {
  PipelineMachine machine;
  machine.untracked.insert(machine.uuid.lower());
  machine.run([&] { machine.history().bootstrap(); });
  machine.settle();
  EXPECT_THAT(machine.logged("bootstrap"), ElementsAre("history bootstrap found no eligible mounted APFS volumes"));
  machine.run([&] { EXPECT_TRUE(machine.history().needsExistingSnapshotBootstrap()); });
}

TEST(Rebuild, ReindexingEverythingStartsFromNothing) {
  TwoVolumes machine;
  (void)machine.takeSeveral(1);
  machine.run([&] { machine.history().reindexAllVolumes(); });
  machine.settle();
  EXPECT_EQ(machine.ready().size(), 3u);
  EXPECT_EQ(machine.ready(machine.otherKey()), machine.others);
  EXPECT_EQ(machine.complaint(), "");
  EXPECT_THAT(machine.here().caches.purged, Contains("all"));
  EXPECT_FALSE(machine.asksForBootstrap());
}

TEST(Rebuild, WhereNoVolumeCanBeHadNothingIsTouched) {
  PipelineMachine machine;
  const Xid xid = machine.takeSeveral(1).front();
  // Two disks with one identity: none of them can be resolved.
  sim::SimVolume copy = machine.volumes.volumes().front();
  copy.mountPoint = copy.description.volumePath.emplace("/Volumes/Copy");
  machine.volumes.add(copy);
  EXPECT_THAT(
      machine.errorOf([&] { machine.history().reindexAllVolumes(); }),
      ::testing::AllOf(HasSubstr("No volume could be resolved (Data ["), HasSubstr("); history was not modified.")));
  machine.volumes.take(machine.uuid);
  machine.volumes.take(machine.uuid);
  EXPECT_EQ(machine.errorOf([&] { machine.history().reindexAllVolumes(); }),
            "Volume inventory returned no mounted APFS volumes; history was not modified.");
  EXPECT_EQ(machine.ready(), (Xids{xid}));
  EXPECT_THAT(machine.here().caches.purged, IsEmpty());
}

// Goal:   a second request takes over at the next volume, and only its end counts.
TEST(Rebuild, ANewerRequestSupersedesTheOneUnderWay) {
  TwoVolumes machine;
  bool asked = false;
  machine.here().sim.directories().watchCalls([&](DirectoryCall call, const std::string&) {
    if (call != DirectoryCall::openTree || std::exchange(asked, true)) return;
    // From another client, while the first volume is being read.
    machine.here().life.spawn("client", [&] { machine.history().reindexAllVolumes(); });
    machine.here().life.delay(100ms);
    EXPECT_TRUE(machine.history().needsExistingSnapshotBootstrap());
  });
  machine.run([&] { machine.history().bootstrap(); });
  machine.settle();
  EXPECT_EQ(machine.ready(), machine.data);
  EXPECT_EQ(machine.ready(machine.otherKey()), machine.others);
  EXPECT_THAT(machine.logged("bootstrap"),
              ElementsAre("history bootstrap was incomplete; it will retry after the next helper launch"));
  EXPECT_FALSE(machine.asksForBootstrap());
  EXPECT_EQ(machine.health(), HelperSubsystemHealth());
  EXPECT_EQ(machine.complaint(), "");
}

// Behind the barrier nobody could register a snapshot: so what is being read, and is thrown away anyway, ends first.
TEST(Rebuild, ReindexingEverythingWaitsForNoScan) {
  PipelineMachine machine;
  const Xid first = machine.beginSlowScan();
  const MonotonicTime before = machine.simulation.clock().monotonic();
  machine.run([&] { machine.history().reindexAllVolumes(); });
  const Xid second = machine.take();
  EXPECT_LT(machine.simulation.clock().monotonic() - before, 1s);
  machine.here().sim.directories().watchCalls(nullptr);
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{first, second}));
  EXPECT_EQ(machine.health(), HelperSubsystemHealth());
}

TEST(Rebuild, AVolumeWithoutHistoryThatCannotBeReadIsSkippedQuietly) {
  TwoVolumes machine;
  machine.volumes.failNext(sim::SimCall::list, EIO);
  machine.run([&] { machine.history().bootstrap(); });
  machine.settle();
  EXPECT_THAT(machine.logged("rebuild skipped"),
              ElementsAre(HasSubstr("; no history here and it is not readable right now: ")));
  EXPECT_EQ(machine.ready(), Xids());
  EXPECT_EQ(machine.ready(machine.otherKey()), machine.others);
  EXPECT_EQ(machine.health(), HelperSubsystemHealth());
  EXPECT_FALSE(machine.asksForBootstrap());
}

TEST(Rebuild, AfterADropEverywhereNothingOfTheOldHistoryCanLandAnyMore) {
  for (std::uint64_t seed = 1; seed <= 8; ++seed) {
    PipelineMachine machine({.seed = seed, .switchPercent = 40});
    std::vector<Xid> xids;
    machine.run([&] {
      for (int i = 0; i < 3; ++i) {
        machine.write("/f" + std::to_string(i), i);
        xids.push_back(machine.add());
        machine.history().snapshotCreated(machine.volume(), machine.record(xids.back()), Forced::no);
      }
      machine.history().reindexAllVolumes();
      machine.write("/late", 1);
      xids.push_back(machine.add());
      machine.history().snapshotCreated(machine.volume(), machine.record(xids.back()), Forced::no);
    });
    machine.settle();
    EXPECT_EQ(machine.ready(), Xids(xids.begin(), xids.end())) << "seed " << seed;
    EXPECT_EQ(machine.complaint(), "") << "seed " << seed;
  }
}

}  // namespace
}  // namespace quillmark
