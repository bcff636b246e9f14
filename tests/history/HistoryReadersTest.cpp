// Readers of a history while it is written: on real threads, and inside the simulator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "ChainInvariants.h"
#include "HistoryMachine.h"
#include "history/HistoryRows.h"
#include "platform/sim/Simulation.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;

const VolumeUuid& volume = historyVolume;

// The tree of an XID is known from its number alone.
HistoryTreeMap treeAt(std::uint64_t xid) {
  HistoryTreeMap tree{{"/", folder(256)}};
  for (std::uint64_t i = 0; i < 30; ++i) {
    if ((i + xid) % 4 != 0) tree["/" + std::to_string(i)] = file(300 + i, static_cast<std::int64_t>(xid / (i + 1)));
  }
  return tree;
}

class Crew final {
 public:
  Crew(HistoryLife& life, std::uint64_t snapshots) : life_(life), snapshots_(snapshots), working_(life.dispatch()) {}

  void start(const std::string& label, std::function<void()> work) {
    working_.enter();
    life_.dispatch().throwAwayThread(label, [this, work = std::move(work)] {
      work();
      working_.leave();
    });
  }
  void wait() { working_.wait(); }

  void write() {
    for (std::uint64_t xid = 1; xid <= snapshots_; ++xid) {
      sleepFor(life_.dispatch(), 1ms);  // so that in the simulator the readers' millisecond passes too
      life_.index(volume, xid, treeAt(xid));
      if (xid % 3 == 0) life_->deleteSnapshot(volume, Xid{xid - 1});
      if (xid % 7 == 0) life_->deleteSnapshots(volume, {Xid{xid}, Xid{1}});
    }
    done_ = true;
  }
  // One state, whatever is committed meanwhile: the volume, its snapshots, and each of their trees.
  void readWhole() {
    while (!done_) {
      life_->consistentRead({}, [&](HistoryConnection& connection) {
        const auto state = readVolumeState(connection, volume);
        for (const StoredSnapshot& snapshot : readReadySnapshots(connection, volume)) {
          if (!state || !state->head || snapshot.xid > *state->head) ++wrong_;
          if (treeOf(life_->reconstruct(volume, snapshot.xid, connection)) != treeAt(snapshot.xid.value)) ++wrong_;
        }
      });
      ++reads_;
      sleepFor(life_.dispatch(), 1ms);
    }
  }
  void readParts() {
    while (!done_) {
      for (const Xid xid : life_->readyXIDs(volume)) static_cast<void>(life_->snapshotState(volume, xid));
      static_cast<void>(life_->pendingSnapshots(volume));
      static_cast<void>(life_->volumes(HistoryVolumeState::healthy));
      ++reads_;
      sleepFor(life_.dispatch(), 1ms);
    }
  }

  [[nodiscard]] int wrong() const { return wrong_; }
  [[nodiscard]] int reads() const { return reads_; }

 private:
  HistoryLife& life_;
  const std::uint64_t snapshots_;
  Group working_;
  std::atomic<bool> done_{false};
  std::atomic<int> wrong_{0};
  std::atomic<int> reads_{0};
};

void readWhileItIsWritten(HistoryLife& life, std::uint64_t snapshots) {
  Crew crew(life, snapshots);
  crew.start("writer", [&] { crew.write(); });
  for (int i = 0; i < 3; ++i) crew.start("whole reader", [&] { crew.readWhole(); });
  for (int i = 0; i < 3; ++i) crew.start("part reader", [&] { crew.readParts(); });
  crew.wait();
  EXPECT_EQ(crew.wrong(), 0);
  EXPECT_GT(crew.reads(), 6);
  EXPECT_EQ(brokenInvariant(life.store(), life.dispatch()), "");
}

TEST(HistoryReaders, seeOneStateEachOnRealThreads) {
  PlainHistoryMachine machine;
  HistoryLife life(machine.dispatch, machine.posix, machine.paths);
  readWhileItIsWritten(life, 60);
}

// Goal:   the same inside a simulated life, on its disk, over many orders; a seed gives the same run.
TEST(HistoryReaders, seeOneStateEachInTheSimulator) {
  const auto lastDraw = [](std::uint64_t seed) {
    sim::Simulation simulation({.seed = seed, .switchPercent = 40});
    sim::SimVolumes volumes;
    sim::Life& process = simulation.startLife("helper");
    sim::SimPlatform platform(process, volumes);
    simulation.run(process, [&] {
      HistoryLife life(process.dispatch(), platform.files(), platform.paths());
      readWhileItIsWritten(life, 16);
    });
    return simulation.lastDraw();
  };
  for (std::uint64_t seed = 1; seed <= 4; ++seed) EXPECT_EQ(lastDraw(seed), lastDraw(seed)) << "seed " << seed;
}

// Goal:   what was acknowledged before a kill is there for the next life, whatever was under way.
// Method: a life is killed at a drawn call of its disk while it writes and reads; another opens what is left.
TEST(HistoryReaders, findAllThatWasAcknowledgedBeforeAKill) {
  for (std::uint64_t seed = 1; seed <= 12; ++seed) {
    sim::Simulation simulation({.seed = seed});
    sim::SimVolumes volumes;
    sim::Life& process = simulation.startLife("helper");
    sim::SimPlatform platform(process, volumes);
    platform.files().setPlan({.seed = seed, .fault = sim::Fault::kill, .atCall = 300 + 171 * seed});
    std::uint64_t acknowledged = 0;
    const bool ended = simulation.run(process, [&] {
      HistoryLife life(process.dispatch(), platform.files(), platform.paths());
      process.spawn("reader", [&] {
        for (;; process.delay(1ms)) static_cast<void>(life.readyTrees(volume));
      });
      for (std::uint64_t xid = 1;; ++xid) {
        life.index(volume, xid, treeAt(xid));
        acknowledged = xid;
      }
    });
    ASSERT_FALSE(ended) << "never killed";
    sim::Life& next = simulation.startLife("helper");
    sim::SimPlatform after(next, volumes, {.files = platform.files().copyForSuccessor()});
    simulation.run(next, [&] {
      HistoryLife life(next.dispatch(), after.files(), after.paths());
      EXPECT_EQ(brokenInvariant(life.store(), life.dispatch()), "") << "seed " << seed;
      const auto trees = life.readyTrees(volume);
      EXPECT_GE(trees.size(), acknowledged) << "seed " << seed;
      for (const auto& [xid, tree] : trees) EXPECT_TRUE(tree == treeAt(xid)) << "seed " << seed << ", xid " << xid;
    });
  }
}

// Goal:   listing never waits: with all read connections lent and a commit under way the cache answers.
TEST(HistoryReaders, areAnsweredFromTheCacheWhileACommitHoldsTheLock) {
  sim::Simulation simulation;
  sim::SimVolumes volumes;
  sim::Life& process = simulation.startLife("helper");
  sim::SimPlatform platform(process, volumes);
  simulation.run(process, [&] {
    HistoryLife life(process.dispatch(), platform.files(), platform.paths());
    life.index(volume, 1, treeAt(1));
    Semaphore lent(process.dispatch()), ready(process.dispatch());
    Group readers(process.dispatch());
    for (int i = 0; i < 4; ++i) {
      readers.enter();
      process.spawn("reader", [&] {
        life->consistentRead({}, [&](HistoryConnection& connection) {
          static_cast<void>(readVolumeState(connection, volume));
          ready.signal();
          lent.wait();
        });
        readers.leave();
      });
    }
    for (int i = 0; i < 4; ++i) ready.wait();
    EXPECT_EQ(life->readyXIDs(volume), std::set<Xid>{Xid{1}}) << "on the writing connection";
    // Another process's writer keeps ours waiting, with the lock held.
    HistoryConnection stranger(life.databasePath(), HistoryConnection::Access::readWriteCreate);
    stranger.execute("BEGIN IMMEDIATE");
    readers.enter();
    process.spawn("writer", [&] {
      life.recordPending(volume, 2);
      readers.leave();
    });
    process.delay(100ms);
    const MonotonicTime asked = process.clock().monotonic();
    EXPECT_EQ(life->readyXIDs(volume), std::set<Xid>{Xid{1}});
    EXPECT_EQ(process.clock().monotonic(), asked) << "it waited";
    stranger.execute("ROLLBACK");
    for (int i = 0; i < 4; ++i) lent.signal();
    readers.wait();
    EXPECT_EQ(life->snapshotState(volume, Xid{2}), "pending");
  });
}

}  // namespace
}  // namespace quillmark
