// Random lives of several volumes against a naive second telling that keeps every tree whole.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "ChainInvariants.h"
#include "HistoryMachine.h"

namespace quillmark {
namespace {

// What a volume's history should be, kept the long way.
struct VolumeModel {
  struct Snapshot {
    bool ready = false;
    HistoryTreeMap tree;  // of a pending one: what its scan will find
  };
  std::map<std::uint64_t, Snapshot> snapshots;
  bool known = false;
  bool indexed = false;  // there is a baseline
  HistoryTreeMap live;

  [[nodiscard]] std::vector<std::uint64_t> xids(bool ready) const {
    std::vector<std::uint64_t> found;
    for (const auto& [xid, snapshot] : snapshots) {
      if (snapshot.ready == ready) found.push_back(xid);
    }
    return found;
  }
};

struct ModelCase {
  std::uint64_t seed;
  friend void PrintTo(const ModelCase& one, std::ostream* out) { *out << "seed " << one.seed; }
};

class HistoryChain : public ::testing::TestWithParam<ModelCase> {
 protected:
  using Volumes = std::map<VolumeUuid, VolumeModel>;

  std::uint64_t below(std::uint64_t bound) { return random_() % bound; }
  bool chance(unsigned percent) { return below(100) < percent; }

  void changeSomething(HistoryTreeMap& tree) {
    tree.try_emplace("/", folder(256));
    for (std::uint64_t changes = below(6); changes > 0; --changes) {
      // Few paths and few states, so that the same ones come back.
      const std::string path = "/" + std::string(1, static_cast<char>('a' + below(4))) +
                               (chance(50) ? "/" + std::string(1, static_cast<char>('a' + below(3))) : "");
      if (chance(35)) {
        tree.erase(path);
      } else {
        tree[path] = chance(20) ? folder(300 + below(3)) : file(300 + below(3), static_cast<std::int64_t>(below(3)));
      }
    }
  }

  void step(HistoryLife& life, const VolumeUuid& volume, VolumeModel& model) {
    switch (below(13)) {
      case 0:
      case 1:
      case 2:
      case 3: return takeSnapshot(life, volume, model);
      case 4:
      case 5:
      case 6:
      case 7: return indexOne(life, volume, model);
      case 8:
      case 9: return deleteSome(life, volume, model);
      case 10: return chance(50) ? life->compactHistory(volume) : dropPending(life, volume, model);
      case 11: return requeueSome(life, volume, model);
      default: return chance(25) ? drop(life, volume, model) : life.reopen();
    }
  }

  void takeSnapshot(HistoryLife& life, const VolumeUuid& volume, VolumeModel& model) {
    changeSomething(model.live);
    xid_ += 1 + below(3);
    life.recordPending(volume, xid_);
    model.known = true;
    model.snapshots[xid_] = {false, model.live};
  }

  // The lowest pending one, as the pipeline does.
  void indexOne(HistoryLife& life, const VolumeUuid& volume, VolumeModel& model) {
    const std::vector<std::uint64_t> pending = model.xids(false);
    if (pending.empty()) return;
    VolumeModel::Snapshot& snapshot = model.snapshots[pending.front()];
    life.commit(volume, pending.front(), snapshot.tree);
    snapshot.ready = model.indexed = true;
    if (chance(70)) life->compactHistory(volume);
  }

  void deleteSome(HistoryLife& life, const VolumeUuid& volume, VolumeModel& model) {
    std::vector<Xid> doomed;
    for (const auto& [xid, snapshot] : model.snapshots) {
      if (chance(25)) doomed.push_back(Xid{xid});
    }
    std::shuffle(doomed.begin(), doomed.end(), random_);
    if (chance(10)) doomed.push_back(Xid{xid_ + 100});  // one that nobody knows
    life->deleteSnapshots(volume, doomed);
    for (const Xid xid : doomed) model.snapshots.erase(xid.value);
    if (!doomed.empty()) dropIfEmpty(model);
  }

  // Those at the end wait again, the others go.
  void requeueSome(HistoryLife& life, const VolumeUuid& volume, VolumeModel& model) {
    const std::vector<std::uint64_t> ready = model.xids(true);
    std::vector<StoredSnapshot> stale;
    bool isEnd = true;
    for (auto xid = ready.rbegin(); xid != ready.rend(); ++xid) {
      if (!chance(50)) {
        isEnd = false;
        continue;
      }
      stale.push_back({.xid = Xid{*xid}, .name = "stale"});
      if (isEnd) {
        model.snapshots[*xid].ready = false;
      } else {
        model.snapshots.erase(*xid);
      }
    }
    if (stale.empty()) return;
    EXPECT_EQ(life->requeueEnd(volume, stale), !model.snapshots[ready.back()].ready);
    model.indexed = !model.xids(true).empty();
  }

  void dropPending(HistoryLife& life, const VolumeUuid& volume, VolumeModel& model) {
    const std::uint64_t upTo = xid_ - below(xid_ + 1);
    std::set<Xid> keeping;
    for (const std::uint64_t xid : model.xids(false)) {
      if (chance(50)) keeping.insert(Xid{xid});
    }
    life->dropPending(volume, Xid{upTo}, keeping);
    for (const std::uint64_t xid : model.xids(false)) {
      if (xid <= upTo && !keeping.contains(Xid{xid})) model.snapshots.erase(xid);
    }
    life->compactHistory(volume);
    dropIfEmpty(model);
  }

  void drop(HistoryLife& life, const VolumeUuid& volume, VolumeModel& model) {
    life->dropVolume(volume);
    model = {.live = model.live};
  }

  // With its last snapshot an indexed volume goes as a whole.
  static void dropIfEmpty(VolumeModel& model) {
    if (model.indexed && model.snapshots.empty()) model = {.live = model.live};
  }

  static void compare(HistoryLife& life, const VolumeUuid& volume, const VolumeModel& model) {
    std::map<std::uint64_t, HistoryTreeMap> expected;
    std::set<Xid> ready;
    for (const std::uint64_t xid : model.xids(true)) {
      expected[xid] = model.snapshots.at(xid).tree;
      ready.insert(Xid{xid});
    }
    EXPECT_TRUE(life.readyTrees(volume) == expected) << "a tree of " << volume.text();
    EXPECT_EQ(life->readyXIDs(volume), ready);
    EXPECT_EQ(life->volumeState(volume).has_value(), model.known);
    EXPECT_EQ(life->pendingSnapshots(volume).size(), model.xids(false).size());
  }

  std::mt19937_64 random_{GetParam().seed};
  std::uint64_t xid_ = 0;
};

// Goal:   whatever is taken, indexed, deleted and merged, and in whatever order, every ready snapshot gives its tree.
// Method: random steps on three volumes; after each, all trees of all volumes against the model, and the invariants.
TEST_P(HistoryChain, givesEveryTreeWhateverWasDeletedAroundIt) {
  PlainHistoryMachine machine;
  HistoryLife life(machine.dispatch, machine.posix, machine.paths);
  Volumes volumes{{historyVolume, {}}, {otherHistoryVolume, {}}, {VolumeUuid("third"), {}}};
  for (int i = 0; i < 120 && !HasFailure(); ++i) {
    auto chosen = std::next(volumes.begin(), static_cast<std::ptrdiff_t>(below(volumes.size())));
    step(life, chosen->first, chosen->second);
    for (const auto& [volume, model] : volumes) compare(life, volume, model);
    EXPECT_EQ(brokenInvariant(life.store(), life.dispatch()), "") << "step " << i;
  }
  EXPECT_THAT(life.logLines(), ::testing::IsEmpty()) << "nothing had to be dropped for repair";
}

std::vector<ModelCase> seeds() {
  std::vector<ModelCase> all;
  for (std::uint64_t seed = 1; seed <= 24; ++seed) all.push_back({seed});
  return all;
}
INSTANTIATE_TEST_SUITE_P(Random, HistoryChain, ::testing::ValuesIn(seeds()),
                         [](const auto& one) { return "seed" + std::to_string(one.param.seed); });

}  // namespace
}  // namespace quillmark
