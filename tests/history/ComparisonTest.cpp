// What changed between two snapshots, by the history, by indexing on demand, and by scans that are offered to the history.
#include <fmt/format.h>

#include "PipelineMachine.h"
#include "history/ComparisonCache.h"

namespace quillmark {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// "+/new -/old ~/changed ↻/other-type >/to", by path.
std::string textOf(const Comparison& comparison) {
  static constexpr std::array<std::string_view, 5> signs{"+", "-", "~", "↻", ">"};
  std::string text;
  for (const DiffResult::Row& row : makeDiffResult(comparison, "x", {}, {}).rows) {
    text += (text.empty() ? "" : " ") + std::string(signs[static_cast<std::size_t>(row.kind)]) + row.path;
  }
  return text;
}

class ComparisonTest : public testing::Test {
 protected:
  std::shared_ptr<const Comparison> compare(Xid a, Xid b, bool includeTree = false, bool fullScan = false) {
    std::shared_ptr<const Comparison> comparison;
    machine.run([&] {
      comparison =
          machine.history().compare(machine.volume(), machine.record(a), machine.record(b), includeTree, fullScan);
    });
    return comparison;
  }
  std::size_t scans() { return machine.here().audit.events.size(); }

  PipelineMachine machine;
};

TEST_F(ComparisonTest, theHistoryAnswersFromTheLowerToTheHigherWhateverTheOrderOfAsking) {
  const auto xids = machine.takeSeveral(3);
  const std::size_t before = scans();
  const std::string text = textOf(*compare(xids[0], xids[2]));
  EXPECT_THAT(text, HasSubstr("+/home/file"));
  EXPECT_EQ(textOf(*compare(xids[2], xids[0])), text);
  EXPECT_EQ(textOf(*compare(xids[1], xids[1])), "");
  EXPECT_EQ(scans(), before) << "neither trees nor snapshots were read";

  Comparison inside, beside;
  machine.run([&] {
    inside = machine.history().compareSubtree(machine.key, "/home", xids[0], xids[2]);
    beside = machine.history().compareSubtree(machine.key, "/hom", xids[0], xids[2]);
  });
  EXPECT_EQ(textOf(inside), text);
  EXPECT_EQ(textOf(beside), "");
}

TEST_F(ComparisonTest, whatCameAndWentOnTheWayDoesNotCountAndTheTreesTellTheSame) {
  std::vector<Xid> xids;
  const auto next = [&](FunctionRef<void(sim::SimTree&)> work) {
    machine.volumes.change(machine.uuid, [&](sim::SimVolume& volume) { work(volume.tree); });
    xids.push_back(machine.take());
    machine.settle();
  };
  FileFacts asItWas;
  next([&](sim::SimTree& tree) {
    for (const char* path : {"/back", "/from", "/gone", "/twice"}) tree.write(path, 1);
    asItWas = *tree.find("/back");
  });
  next([](sim::SimTree& tree) {
    for (const char* path : {"/back", "/brief", "/twice"}) tree.write(path, 2);
    tree.rename("/from", "/via");
  });
  next([&](sim::SimTree& tree) {
    tree.put("/back", asItWas);
    for (const char* path : {"/brief", "/gone"}) tree.remove(path);
    tree.rename("/via", "/to");
    tree.write("/twice", 3);
  });
  EXPECT_EQ(textOf(*compare(xids[0], xids[2])), "-/gone >/to ~/twice");
  for (const auto& [a, b] : {std::pair(0U, 1U), std::pair(1U, 2U), std::pair(2U, 0U)}) {
    const auto comparison = compare(xids[a], xids[b], true);
    EXPECT_EQ(textOf(*comparison), textOf(*compare(xids[a], xids[b])));
    std::map<std::string, std::int64_t> sizes;
    for (const auto& entry : comparison->combinedEntries) {
      EXPECT_TRUE(sizes.empty() || sizes.rbegin()->first < entry.path) << "by path, each once";
      sizes[entry.path] = entry.size;
    }
    for (const char* path : {"/", "/back", "/gone", "/twice"}) EXPECT_TRUE(sizes.contains(path)) << path;
    EXPECT_EQ(sizes["/twice"], std::max(a, b) + 1) << "the later state";
  }
}

TEST_F(ComparisonTest, morePathsThanCanBeToldAreCutOffWhileTheyAreRead) {
  const auto xids = machine.takeSeveral(1);
  const StoredSnapshot next{Xid{xids[0].value + 1}, "next", {}, "pending"};
  HistoryDelta delta;
  for (std::int64_t i = 0; i <= SnapshotIndex::rowLimit; ++i) {
    delta.push_back(
        {fmt::format("/{:06}", i), std::nullopt, SnapshotIndex::Facts{.type = SnapshotIndex::EntryType::file}});
  }
  Comparison whole, last;
  machine.run([&] {
    machine.store().registerPending(machine.key, next.xid, next.name, next.createdAt);
    machine.store().commitDelta(machine.key, xids[0], next, delta);
    whole = machine.history().compareSubtree(machine.key, "/", xids[0], next.xid);
    last = machine.history().compareSubtree(machine.key, delta.back().path, xids[0], next.xid);
  });
  const DiffResult told = makeDiffResult(whole, "x", xids[0], next.xid);
  EXPECT_TRUE(told.truncated);
  EXPECT_EQ(told.rows.size(), static_cast<std::size_t>(SnapshotIndex::rowLimit));
  EXPECT_EQ(told.totalRowCount, SnapshotIndex::rowLimit) << "what was read, not what there is";
  EXPECT_TRUE(last.output.truncated && last.output.added.empty()) << "all paths count, also outside the folder";
}

TEST_F(ComparisonTest, indexesOnDemandWhatIsQueued) {
  machine.indexOnBattery = false;
  machine.here().sim.power().onACPower = false;
  const auto xids = machine.takeSeveral(2);
  EXPECT_THAT(machine.ready(), IsEmpty());
  EXPECT_THAT(textOf(*compare(xids[0], xids[1])), HasSubstr("+/home/file"));
  EXPECT_EQ(machine.ready(), Xids(xids.begin(), xids.end()));
}

TEST_F(ComparisonTest, oneThatCannotBeIndexedKeepsNobodyFromComparingOthers) {
  machine.indexOnBattery = false;
  machine.here().sim.power().onACPower = false;
  const auto xids = machine.takeSeveral(3);
  machine.here().sim.directories().fail(sim::DirectoryCall::openTree, machine.indexPath(xids[0]), EIO, 1);
  EXPECT_EQ(textOf(*compare(xids[1], xids[2])), "+/home/file2");
  EXPECT_THAT(machine.logged("snapshot (re)index failed: "), SizeIs(1));
  machine.settle();
  EXPECT_EQ(machine.pending(), Xids(xids.begin(), xids.end())) << "all wait for the first";
  EXPECT_EQ(textOf(*compare(xids[0], xids[1])), "+/home/file1");
  EXPECT_EQ(machine.complaint(), "");
}

TEST_F(ComparisonTest, aSnapshotBelowTheHeadIsReadForTheAnswerAndStaysOutside) {
  machine.write("/old", 1);
  const Xid stranded = machine.add("other.tool-");
  const auto xids = machine.takeSeveral(1);
  machine.settle();
  EXPECT_THAT(textOf(*compare(stranded, xids[0])), HasSubstr("+/home/file"));
  EXPECT_THAT(machine.here().audit.events.back().detail, HasSubstr("Comparison fallback full index · "));
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{xids[0]}));
  EXPECT_EQ(machine.complaint(), "");
}

TEST_F(ComparisonTest, scansOfSnapshotsAboveTheHeadBecomeItsNextLinks) {
  const auto first = machine.takeSeveral(1);
  machine.write("/theirs", 1);
  const Xid second = machine.add("other.tool-");
  machine.write("/more", 1);
  const Xid third = machine.add("other.tool-");
  machine.volumes.change(machine.uuid, [](sim::SimVolume& volume) { volume.snapshots.back().lastChange = 900; });
  EXPECT_EQ(textOf(*compare(second, third)), "+/more");
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{first[0], second, third}));
  EXPECT_THAT(machine.logged("adopted comparison scan"), SizeIs(2));
  EXPECT_THAT(machine.here().audit.events.back().detail, HasSubstr("Comparison scan saved as index · 1 changed paths"));
  machine.run([&] {
    EXPECT_EQ(machine.store().notedChanges(machine.key), (std::map<Xid, std::uint64_t>{{third, 900}}))
        << "else it would be taken for changed since";
  });
  EXPECT_EQ(machine.complaint(), "");
}

TEST_F(ComparisonTest, theFirstScansOfAVolumeBecomeItsBaselineAndAStep) {
  const Xid first = machine.add("other.tool-");
  machine.write("/more", 1);
  const Xid second = machine.add("other.tool-");
  EXPECT_EQ(textOf(*compare(second, first)), "-/more") << "scans go as asked";
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{first, second}));
  EXPECT_EQ(machine.complaint(), "");
}

TEST_F(ComparisonTest, whatLiesBetweenIsIndexedFirst) {
  const auto head = machine.takeSeveral(1);
  const Xid between = machine.add("other.tool-");
  machine.write("/more", 1);
  const Xid last = machine.add("other.tool-");
  EXPECT_EQ(textOf(*compare(head[0], last)), "+/more");
  machine.settle();
  EXPECT_THAT(machine.logged("not adopting the comparison scan of xid=" + std::to_string(last.value)), SizeIs(1));
  EXPECT_THAT(machine.ready(), Contains(between));
  EXPECT_EQ(machine.complaint(), "");
}

TEST_F(ComparisonTest, switchedOffItScansAndKeepsNothing) {
  machine.mode = IndexingMode::disabled;
  const auto xids = machine.takeSeveral(2);
  EXPECT_THAT(textOf(*compare(xids[0], xids[1])), HasSubstr("+/home/file"));
  machine.settle();
  EXPECT_THAT(machine.ready(), IsEmpty());
}

TEST_F(ComparisonTest, treesThatCannotJoinTheHistoryAreNotKeptForIt) {
  machine.mode = IndexingMode::disabled;
  const auto xids = machine.takeSeveral(2);
  machine.run([&] {
    static_cast<void>(
        machine.history().compare(machine.volume(), machine.record(xids[0]), machine.record(xids[1]), false, false));
    machine.mode = IndexingMode::fullScan;
  });
  machine.settle();
  EXPECT_THAT(machine.logged("adopted comparison scan"), IsEmpty());
  EXPECT_EQ(machine.ready(), Xids(xids.begin(), xids.end())) << "what waits is indexed all the same";

  const Xid stranded = machine.add("other.tool-");
  const auto next = machine.takeSeveral(1);
  machine.run([&] { machine.store().deleteSnapshot(machine.key, stranded); });  // the catch-up took it in
  machine.run([&] {
    static_cast<void>(
        machine.history().compare(machine.volume(), machine.record(stranded), machine.record(next[0]), false, false));
    machine.volumes.failNext(sim::SimCall::list, EIO);
  });
  machine.settle();
  EXPECT_THAT(machine.logged("could not adopt"), IsEmpty()) << "nobody looks where they could go";
}

// Goal:   comparisons at once don't pile up their trees.
// Method: two of snapshots that could all join the chain; what only one of them offers is read again when it is asked for.
TEST_F(ComparisonTest, onlyOneComparisonAtATimeOffersItsTrees) {
  const auto head = machine.takeSeveral(1);
  std::vector<Xid> theirs;
  for (int i = 0; i < 4; ++i) {
    machine.write("/theirs" + std::to_string(i), 1);
    theirs.push_back(machine.add("other.tool-"));
  }
  std::vector<std::string> answers(2);
  machine.here().sim.directories().watchCalls([&](sim::DirectoryCall call, const std::string&) {
    if (call == sim::DirectoryCall::openTree) machine.here().life.delay(100ms);
  });
  machine.run([&] {
    for (const std::size_t client : {0u, 1u}) {
      machine.here().life.spawn("client", [&, client] {
        const SnapshotRecord from = machine.record(theirs[2 * client]), to = machine.record(theirs[2 * client + 1]);
        answers[client] = textOf(*machine.history().compare(machine.volume(), from, to, false, false));
      });
      machine.here().life.delay(10ms);  // the second one comes while the first is at it
    }
  });
  machine.settle();
  EXPECT_THAT(answers, ElementsAre("+/theirs1", "+/theirs3"));
  EXPECT_THAT(machine.logged("adopted comparison scan"), SizeIs(2));
  EXPECT_EQ(machine.ready(), (Xids{head[0], theirs[0], theirs[1]}));
  EXPECT_EQ(textOf(*compare(theirs[3], theirs[2])), "-/theirs3");
  machine.settle();
  EXPECT_EQ(machine.ready(), (Xids{head[0], theirs[0], theirs[1], theirs[2], theirs[3]}));
  EXPECT_EQ(machine.complaint(), "");
}

TEST_F(ComparisonTest, aFullScanShowsWhatIsExcludedAndLeavesTheHistoryAlone) {
  machine.rules = ExclusionRules::compile({}, {"cache"}, {});
  const auto xids = machine.takeSeveral(1);
  machine.write("/cache/hidden", 1);
  const Xid second = machine.take();
  machine.settle();
  EXPECT_THAT(textOf(*compare(xids[0], second)), ::testing::Not(HasSubstr("hidden")));
  EXPECT_THAT(textOf(*compare(xids[0], second, false, true)), HasSubstr("+/cache/hidden"));
  EXPECT_THAT(machine.here().audit.events.back().detail, HasSubstr("One-off full-scan comparison · "));
  machine.settle();
  machine.run([&] {
    EXPECT_FALSE(machine.store().reconstruct(machine.key, second).lookup("/cache/hidden"));
    EXPECT_EQ(brokenInvariant(machine.store(), machine.here().life.dispatch()), "");
  });
}

TEST_F(ComparisonTest, aFailedScanIsTheAnswerAndNothingIsKept) {
  machine.mode = IndexingMode::disabled;
  const auto xids = machine.takeSeveral(2);
  machine.volumes.failNext(sim::SimCall::mount, EIO);
  EXPECT_NE(machine.errorOf([&] {
    static_cast<void>(
        machine.history().compare(machine.volume(), machine.record(xids[0]), machine.record(xids[1]), false, false));
  }),
            "nothing");
  EXPECT_THAT(textOf(*compare(xids[0], xids[1])), HasSubstr("+/home/file"));
}

class RecordingCaches final : public HistoryCaches {
 public:
  void purge(const VolumeUuid&) override { ++purges; }
  void purge(const VolumeUuid&, const std::set<Xid>&) override { ++purges; }
  void purgeAll() override { ++purges; }
  int purges = 0;
};

TEST(ComparisonCache, holdsTheLastTwoAndOneTreeAtMost) {
  sim::Simulation simulation;
  RecordingCaches behind;
  ComparisonCache cache(simulation.startLife("helper").dispatch(), &behind);
  const VolumeUuid volume("0f2b9e7a-0000-4000-8000-000000000001"), other("0f2b9e7a-0000-4000-8000-000000000002");
  const auto key = [&](std::uint64_t a, std::uint64_t b, bool tree = false) {
    return ComparisonKey{volume, {a}, {b}, tree, false};
  };
  const auto put = [&](const ComparisonKey& at) { cache.insert(at, std::make_shared<Comparison>()); };
  put(key(1, 2));
  put(key(1, 3));
  EXPECT_TRUE(cache.find(key(1, 2))) << "used last now";
  put(key(1, 4));
  EXPECT_FALSE(cache.find(key(1, 3)));
  EXPECT_TRUE(cache.find(key(1, 2)));
  EXPECT_FALSE(cache.find(key(2, 1))) << "the order of asking counts";

  cache.purgeAll();
  put(key(1, 2, true));
  put(key(1, 3));
  put(key(1, 4, true));
  EXPECT_FALSE(cache.find(key(1, 2, true)));
  EXPECT_TRUE(cache.find(key(1, 3)));
  EXPECT_TRUE(cache.find(key(1, 4, true)));

  cache.purge(other);
  cache.purge(volume, {{3}});
  EXPECT_FALSE(cache.find(key(1, 3)));
  EXPECT_TRUE(cache.find(key(1, 4, true)));
  cache.purge(volume);
  EXPECT_FALSE(cache.find(key(1, 4, true)));
  EXPECT_EQ(behind.purges, 4);
}

TEST(DiffResult, rowsStandByPathAndTellEachSide) {
  using SnapshotIndex::EntryType;
  const auto entry = [](const char* path, std::int64_t size, EntryType type = EntryType::file) {
    return SnapshotIndex::Entry({.type = type, .size = size, .mtimeNS = size * 10}, path);
  };
  Comparison comparison;
  comparison.output.added = {entry("/z", 1)};
  comparison.output.deleted = {entry("/a", 2, EntryType::symlink)};
  comparison.output.replaced = {{entry("/m", 3), entry("/m", 4, EntryType::directory)}};
  comparison.output.moved = {{entry("/y", 5), entry("/b", 6)}};
  comparison.output.totalChangeCount = 99;
  DiffResult result = makeDiffResult(comparison, "v", {2}, {1});
  // Path, kind and type; the sizes before and after, then the times.
  using Row = DiffResult::Row;
  using enum DiffResult::ChangeKind;
  using enum DiffResult::EntryType;
  EXPECT_THAT(result.rows,
              ElementsAre(Row{"/a", deleted, symlink, 2, {}, 20}, Row{"/b", moved, file, 5, 6, 50, 60, "/y"},
                          Row{"/m", replaced, directory, 3, 4, 30, 40}, Row{"/z", added, file, {}, 1, {}, 10}));
  EXPECT_EQ(result.totalRowCount, 4);
  comparison.output.truncated = true;
  EXPECT_EQ(makeDiffResult(comparison, "v", {2}, {1}).totalRowCount, 99);

  comparison.output = {};
  comparison.output.added = {entry("/short", 1)};
  const std::string name(mostPathBytes / 4, 'x');
  for (int i = 0; i < 6; ++i) comparison.output.deleted.push_back(entry(("/" + name).c_str(), i));
  result = makeDiffResult(comparison, "v", {2}, {1});
  EXPECT_EQ(result.rows.size(), 3U) << "what a reply can't hold is cut off";
  EXPECT_EQ(result.rows.back().kind, DiffResult::ChangeKind::deleted);
  EXPECT_TRUE(result.truncated);
  EXPECT_EQ(result.totalRowCount, 7);
}

}  // namespace
}  // namespace quillmark
