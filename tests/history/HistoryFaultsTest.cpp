// The history store while its calls fail, its process is killed and the power goes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "ChainInvariants.h"
#include "HistoryMachine.h"
#include "history/HistoryConnection.h"
#include "platform/sim/FaultSweep.h"

namespace quillmark {
namespace {

namespace fs = std::filesystem;
using sim::Fault;
using sim::FaultPlan;
using sim::SimPosix;

const VolumeUuid& volume = historyVolume;

// What a store tells of its volumes.
struct Told {
  struct OfVolume {
    std::map<std::uint64_t, HistoryTreeMap> ready;
    std::vector<Xid> pending;
    std::optional<Xid> baseline, head;
    std::optional<HistoryVolumeState> state;
    bool operator==(const OfVolume&) const = default;
  };
  std::map<VolumeUuid, OfVolume> volumes;
  bool bootstrapped = false;
  bool operator==(const Told&) const = default;
};

Told told(HistoryLife& life) {
  Told all;
  for (const VolumeUuid& each : {volume, otherHistoryVolume}) {
    Told::OfVolume& one = all.volumes[each];
    one.ready = life.readyTrees(each);
    for (const StoredSnapshot& snapshot : life->pendingSnapshots(each)) one.pending.push_back(snapshot.xid);
    if (const auto state = life->volumeState(each)) {
      one.baseline = state->baseline;
      one.head = state->head;
      one.state = state->state;
    }
  }
  all.bootstrapped = !life->needsExistingSnapshotBootstrap();
  return all;
}

HistoryTreeMap treeAt(std::uint64_t xid) {
  HistoryTreeMap tree{{"/", folder(256)}};
  for (std::uint64_t i = 0; i < 40; ++i) {
    if (i % 5 != xid % 5)
      tree["/d/" + std::to_string(i)] = file(300 + i, static_cast<std::int64_t>(i % 3 == 0 ? xid : 1));
  }
  return tree;
}

HistoryLife lifeOn(os::LinuxDispatch& dispatch, SimPosix& disk) {
  return {dispatch, disk, sim::hostPathsUnder(disk.root())};
}

class HistoryFaults : public ::testing::Test {
 protected:
  using Work = std::function<void(HistoryLife&)>;

  HistoryFaults() {
    sim::runSqliteInSimulations();
    HistoryLife life = lifeOn(dispatch_, original_);
    for (const VolumeUuid& each : {volume, otherHistoryVolume}) {
      for (const std::uint64_t xid : {10, 20, 30, 40}) life.index(each, xid, treeAt(xid));
    }
    life.recordPending(volume, 50);
    life->markBootstrapComplete();
    // As a kill would leave it: part of it in the log.
    fs::copy(original_.root(), template_.root(), fs::copy_options::recursive);
    const std::string copied = sim::hostPathsUnder(template_.root()).state("history.sqlite3");
    fs::remove(copied + "-shm");
  }

  void copyTo(SimPosix& disk) {
    fs::copy(template_.root(), disk.root(), fs::copy_options::recursive);
    disk.syncEverything();
  }

  Told toldAfter(const Work& work) {
    SimPosix disk;
    copyTo(disk);
    HistoryLife life = lifeOn(dispatch_, disk);
    work(life);
    return told(life);
  }

  os::LinuxDispatch& dispatch() { return dispatch_; }

  // Runs the steps with each of their calls going wrong. Afterwards some of them are done and the rest not begun; or what
  // is in the middle comes to its end with the next life.
  void sweep(const std::vector<Work>& steps, const Work& middle = {}) {
    ends_ = {toldAfter([](HistoryLife&) {})};
    for (std::size_t count = 1; count <= steps.size(); ++count) {
      ends_.push_back(toldAfter([&](HistoryLife& life) {
        for (std::size_t i = 0; i < count; ++i) steps[i](life);
      }));
    }
    allowed_ = ends_;
    if (middle) allowed_.push_back(toldAfter(middle));
    const auto all = [&](HistoryLife& life) {
      for (const Work& step : steps) step(life);
    };
    walk({.fault = Fault::fail, .error = EIO}, all);
    walk({.fault = Fault::fail, .only = sim::PosixCall::write, .error = ENOSPC}, all);
    walk({.fault = Fault::shortWrite, .only = sim::PosixCall::write}, all);
    walk({.fault = Fault::kill}, all);
    RecordProperty("faults", static_cast<int>(faults_));
    EXPECT_GT(faults_, 20u);
  }
  // What a deletion leaves when it ends before the transitions were merged.
  static Work marked(const VolumeUuid& of, const std::string& xids) {
    return [of, xids](HistoryLife& life) {
      HistoryConnection(life.databasePath(), HistoryConnection::Access::readWriteCreate)
          .execute("INSERT INTO history_deletions SELECT volume_uuid,xid FROM snapshots WHERE volume_uuid='" +
                   of.text() + "' AND xid IN (" + xids + ");DELETE FROM snapshots WHERE volume_uuid='" + of.text() +
                   "' AND xid IN (" + xids + ")");
    };
  }

 private:
  void walk(FaultPlan plan, const Work& work) {
    for (plan.atCall = 1; !HasFailure() && once(plan, work); ++plan.atCall) ++faults_;
  }

  // False when the work came to its end before the fault.
  bool once(const FaultPlan& plan, const Work& work) {
    SCOPED_TRACE(plan.describe());
    SimPosix disk;
    disk.onKill([] {});  // calls fail from then on
    copyTo(disk);
    HistoryLife life = lifeOn(dispatch_, disk);
    disk.setPlan(plan);
    bool completed = false;
    try {
      work(life);
      completed = true;
    } catch (const Error&) {
    }
    const bool fired = disk.faultFired();
    if (plan.fault == Fault::kill) {
      look(*disk.copyForSuccessor(), completed && !fired);
      for (std::uint64_t seed = 1; seed <= 3; ++seed) {
        SCOPED_TRACE("power cut " + std::to_string(seed));
        look(*disk.powerCut(seed * 1000 + plan.atCall), false);
      }
      return fired;
    }
    disk.setPlan({});
    expectServing(life);
    SCOPED_TRACE(completed ? "completed" : "failed");
    look(*disk.copyForSuccessor(), completed);
    return fired;
  }

  // The life that met the fault goes on.
  static void expectServing(HistoryLife& life) {
    EXPECT_NO_THROW(life->markBootstrapComplete());
    EXPECT_EQ(brokenInvariant(life.store(), life.dispatch()), "") << "in the same life";
  }

  static bool isOneOf(const std::vector<Told>& all, const Told& one) {
    return std::find(all.begin(), all.end(), one) != all.end();
  }

  void look(SimPosix& disk, bool completed) {
    HistoryLife life = lifeOn(dispatch_, disk);
    EXPECT_FALSE(life->didResetForSchemaUpgrade());
    EXPECT_EQ(brokenInvariant(life.store(), life.dispatch()), "") << "reopened";
    const Told found = told(life);
    EXPECT_TRUE(isOneOf(allowed_, found)) << "something between";
    EXPECT_TRUE(!completed || found == ends_.back()) << "an acknowledged commit is lost";
    life->compactAllDeferred();
    EXPECT_EQ(brokenInvariant(life.store(), life.dispatch()), "") << "compacted";
    EXPECT_TRUE(isOneOf(ends_, told(life))) << "compacted to something else";
  }

  os::LinuxClock clock_;
  os::LinuxDispatch dispatch_{clock_};
  SimPosix original_, template_;
  std::vector<Told> ends_, allowed_;
  std::size_t faults_ = 0;
};

TEST_F(HistoryFaults, aBaselineIsCommittedWholeOrNotAtAll) {
  sweep({[](HistoryLife& life) { life->dropVolume(volume); }, [](HistoryLife& life) { life.recordPending(volume, 60); },
         [](HistoryLife& life) { life.commit(volume, 60, treeAt(60)); }});
}

TEST_F(HistoryFaults, aDeltaIsCommittedWholeOrNotAtAll) {
  sweep({[](HistoryLife& life) { life.commit(volume, 50, treeAt(51)); }});
}

TEST_F(HistoryFaults, theBaselineIsDeletedOrStays) {
  sweep({[](HistoryLife& life) { life->deleteSnapshot(volume, Xid{10}); }}, marked(volume, "10"));
}

TEST_F(HistoryFaults, snapshotsInTheMiddleAreDeletedOrStay) {
  sweep({[](HistoryLife& life) { life->deleteSnapshots(volume, {Xid{20}, Xid{30}}); }}, marked(volume, "20,30"));
}

TEST_F(HistoryFaults, theHeadIsDeletedOrStays) {
  sweep({[](HistoryLife& life) {
          life->deleteSnapshots(otherHistoryVolume, {Xid{40}, Xid{30}});
        }},
        marked(otherHistoryVolume, "40,30"));
}

// Whatever waits, and whatever joins it, is there wherever it ends.
TEST_F(HistoryFaults, snapshotsArePutBackInTheQueueOrStayAndNothingLeavesIt) {
  const auto stale = [](std::initializer_list<std::uint64_t> xids) {
    std::vector<StoredSnapshot> snapshots;
    for (const std::uint64_t xid : xids) snapshots.push_back({.xid = Xid{xid}, .name = "stale"});
    return snapshots;
  };
  const auto end = [&](HistoryLife& life) { EXPECT_TRUE(life->requeueEnd(volume, stale({20, 40}))); };
  const auto all = [&](HistoryLife& life) { EXPECT_TRUE(life->requeueEnd(volume, stale({10, 30}))); };
  const auto head = [&](HistoryLife& life) { EXPECT_TRUE(life->requeueHead(otherHistoryVolume, stale({40}).front())); };
  sweep({end, all, head});
}

TEST_F(HistoryFaults, aVolumeIsDroppedWholeOrNotAtAll) {
  sweep({[](HistoryLife& life) { life->dropVolume(otherHistoryVolume); }});
}

// On a full disk what a failed commit wrote to the log would keep the disk full.
TEST_F(HistoryFaults, aCommitThatFailsGivesTheSpaceOfItsLogBack) {
  HistoryTreeMap large = treeAt(60);
  for (std::uint64_t i = 0; i < 4'000; ++i) large["/d/large/" + std::to_string(i)] = file(1000 + i, 1);
  int failed = 0;
  for (std::uint64_t atWrite = 5; atWrite < 400; atWrite += 40) {
    SimPosix disk;
    copyTo(disk);
    HistoryLife life = lifeOn(dispatch(), disk);
    disk.setPlan({.fault = Fault::fail, .atCall = atWrite, .only = sim::PosixCall::write, .error = ENOSPC});
    try {
      life.commit(volume, 50, large);
    } catch (const Error&) {
      ++failed;
      EXPECT_EQ(fs::file_size(life.databasePath() + "-wal"), 0u) << atWrite;
      EXPECT_EQ(life->snapshotState(volume, Xid{50}), "pending");
    }
  }
  EXPECT_GT(failed, 3);
}

// Goal:   no failure while it opens makes the store throw away a good database.
// Method: every call of opening goes wrong; the next life finds all of it.
TEST_F(HistoryFaults, openingFailsOrFindsEverything) {
  const Told before = toldAfter([](HistoryLife&) {});
  const auto complaints = sim::forEachFault(
      {.errors = {EIO}, .powerCutsEach = 3}, [&](SimPosix& disk) { copyTo(disk); },
      [&](SimPosix& disk) {
        disk.onKill([] {});
        HistoryLife life = lifeOn(dispatch(), disk);
        if (life->didResetForSchemaUpgrade()) ADD_FAILURE() << "thrown away";
      },
      [&](SimPosix& disk, const sim::FaultRun&) -> std::string {
        HistoryLife life = lifeOn(dispatch(), disk);
        if (life->didResetForSchemaUpgrade()) return "thrown away";
        return told(life) == before ? brokenInvariant(life.store(), life.dispatch()) : "something else";
      });
  EXPECT_THAT(complaints, ::testing::IsEmpty());
}

// Goal:   the first start, and the one that replaces another version, can be interrupted anywhere.
TEST_F(HistoryFaults, aFirstOpeningCanBeRepeatedWhereverItEnded) {
  for (const bool otherVersion : {false, true}) {
    const auto complaints = sim::forEachFault(
        {.errors = {EIO}, .powerCutsEach = 2},
        [&](SimPosix& disk) {
          if (!otherVersion) return;
          copyTo(disk);
          HistoryConnection(sim::hostPathsUnder(disk.root()).state("history.sqlite3"),
                            HistoryConnection::Access::readWriteCreate)
              .execute("PRAGMA user_version=7");
        },
        [&](SimPosix& disk) {
          disk.onKill([] {});
          HistoryLife life = lifeOn(dispatch(), disk);
          life.recordPending(volume, 1);
        },
        [&](SimPosix& disk, const sim::FaultRun& run) -> std::string {
          HistoryLife life = lifeOn(dispatch(), disk);
          if (!life->needsExistingSnapshotBootstrap()) return "no bootstrap is asked for";
          const bool recorded = life->hasSnapshot(volume, Xid{0}, "pending");
          if (run.completed && !run.powerCut && !recorded) return "an acknowledged row is lost";
          if (life->readyXIDs(otherHistoryVolume).size() != 0) return "the other version's rows";
          return brokenInvariant(life.store(), life.dispatch());
        });
    EXPECT_THAT(complaints, ::testing::IsEmpty());
  }
}

}  // namespace
}  // namespace quillmark
