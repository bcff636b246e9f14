#include <gmock/gmock.h>

#include "history/index/TreeShard.h"
#include "tests/history/index/RandomTrees.h"
#include "tests/platform/DispatchBackends.h"

namespace quillmark::SnapshotIndex {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

class ShardedEntriesSuite : public contract::DispatchSuite {};
INSTANTIATE_TEST_SUITE_P(Trees, ShardedEntriesSuite, testing::ValuesIn(contract::backends()), contract::backendName);

Entry file(std::string_view path, std::uint64_t inode) {
  return Entry({.type = EntryType::file, .inode = inode}, path);
}

// Goal:   a built tree holds what a map of its entries holds, told in the order of bytes, whatever the order they came in.
// Method: random trees; all ways of reading against the map.
TEST_P(ShardedEntriesSuite, holdWhatTheyWereBuiltOf) {
  on([&](Dispatch& dispatch) {
    for (std::uint64_t seed = 1; seed <= 30; ++seed) {
      SCOPED_TRACE(seed);
      RandomTrees random(seed);
      const Model model = random.model(seed * seed * 5);
      const ShardedEntries tree = random.tree(dispatch, model);
      const std::vector<Entry> entries = RandomTrees::entriesOf(model);
      ASSERT_EQ(tree.count(), model.size());
      ASSERT_EQ(tree.isEmpty(), model.empty());
      ASSERT_THAT(byPath(tree), ElementsAreArray(entries));
      const auto cursor = tree.byPath();
      for (const Entry& entry : entries) ASSERT_EQ(cursor->next(), entry.view());
      for (int i = 0; i < 2; ++i) ASSERT_EQ(cursor->next(), std::nullopt);
      auto all = tree.allEntries();
      std::sort(all.begin(), all.end(), [](const Entry& a, const Entry& b) { return a.path < b.path; });
      ASSERT_THAT(all, ElementsAreArray(entries));
      for (const Entry& entry : entries) ASSERT_EQ(tree.lookup(entry.path), entry.view());
      for (int i = 0; i < 100; ++i) {
        const std::string path = random.path();
        ASSERT_EQ(tree.lookup(path).has_value(), model.contains(path)) << path;
      }
      std::size_t shard = 0;
      tree.forEach([&](const EntryView& entry) {
        ASSERT_GE(shardOf(entry.path), shard);
        shard = shardOf(entry.path);
      });
    }
  });
}

// Goal:   built trees can be changed, by more than what stands apart before the tables are made anew.
// Method: random changes on a tree and a map, also of what was just removed; compare as it goes.
TEST_P(ShardedEntriesSuite, takeInsertionsAndRemovalsLikeAMap) {
  on([&](Dispatch& dispatch) {
    RandomTrees random(7);
    Model model = random.model(3000);
    ShardedEntries tree = random.tree(dispatch, model);
    // In one directory, so that one shard gets all.
    const auto path = [&] {
      return random.below(4) == 0 ? random.path() : "/home/" + std::to_string(random.below(20'000));
    };
    for (int i = 1; i <= 60'000; ++i) {
      const std::string at = path();
      if (random.below(4) == 0) {
        const auto removed = tree.remove(at);
        const auto found = model.find(at);
        ASSERT_EQ(removed.has_value(), found != model.end()) << at;
        if (!removed) continue;
        ASSERT_EQ(*removed, Entry(found->second, at));
        model.erase(found);
      } else {
        const Facts facts = random.facts();
        tree.insert({facts, at});
        model.insert_or_assign(at, facts);
      }
      ASSERT_EQ(tree.lookup(at).has_value(), model.contains(at)) << at;
      if (i % 10'000 == 0) {
        ASSERT_THAT(byPath(tree), ElementsAreArray(RandomTrees::entriesOf(model)));
      }
    }
    ASSERT_EQ(tree.count(), model.size());
    for (const Entry& entry : RandomTrees::entriesOf(model)) ASSERT_TRUE(tree.remove(entry.path));
    EXPECT_TRUE(tree.isEmpty());
    EXPECT_THAT(byPath(tree), ElementsAre());
  });
}

TEST_P(ShardedEntriesSuite, keepTheEntryThatCameLastOfAPath) {
  on([&](Dispatch& dispatch) {
    EntryBuckets buckets, later;
    append(buckets, file("/d/a", 1).view());
    append(buckets, file("/d/b", 2).view());
    append(buckets, "/d", "a", file("", 3));
    append(later, "/d", "b", file("", 4));
    append(later, file("/", 5).view());
    append(later, "", "", file("", 6));
    splice(buckets, std::move(later));
    EXPECT_EQ(buckets[shardOf("/d/a")].size(), 4u + (shardOf("/") == shardOf("/d/a") ? 2 : 0));
    const ShardedEntries tree(dispatch, std::move(buckets));
    EXPECT_THAT(byPath(tree), ElementsAre(file("/", 6), file("/d/a", 3), file("/d/b", 4)));
  });
}

TEST_P(ShardedEntriesSuite, combineToTheUnionWhereTheOthersEntryWins) {
  on([&](Dispatch& dispatch) {
    RandomTrees random(3);
    for (const std::size_t size : {0u, 1u, 700u}) {
      const Model first = random.model(size), second = random.changed(random.model(size / 2));
      Model both = second;
      both.insert(first.begin(), first.end());
      EXPECT_THAT(random.tree(dispatch, first).combined(random.tree(dispatch, second)),
                  ElementsAreArray(RandomTrees::entriesOf(both)));
    }
  });
}

// Goal:   trees can be built by items of queues that all wait for their own at once.
// Method: many more items than the helpers of one build, on a serial queue each.
TEST_P(ShardedEntriesSuite, areBuiltByManyQueueItemsAtOnce) {
  on([&](Dispatch& dispatch) {
    RandomTrees random(5);
    const Model model = random.model(2000);
    const std::vector<Entry> entries = RandomTrees::entriesOf(model);
    Group group(dispatch);
    std::vector<std::shared_ptr<Queue>> queues;
    std::vector<std::size_t> counts(40);
    for (std::size_t i = 0; i < counts.size(); ++i) {
      group.enter();
      queues.push_back(dispatch.makeQueue({.label = "builder"}));
      queues.back()->async([&, i] {
        EntryBuckets buckets;
        for (const Entry& entry : entries) append(buckets, entry.view());
        counts[i] = ShardedEntries(dispatch, std::move(buckets)).count();
        group.leave();
      });
    }
    group.wait();
    EXPECT_THAT(counts, testing::Each(model.size()));
  });
}

TEST(TreeShard, takesAtMostSixtyBytesBesideAPath) {
  contract::LinuxBackend backend;
  EntryBuckets buckets;
  constexpr std::size_t count = 50'000;
  std::size_t pathBytes = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string directory = "/home/ada/projects/number/" + std::to_string(i / 10),
                      name = "file." + std::to_string(i);
    append(buckets, directory, name, {.type = EntryType::file, .inode = i});
    pathBytes += directory.size() + 1 + name.size();
  }
  const ShardedEntries tree(backend.dispatch(), std::move(buckets));
  EXPECT_LE(tree.memoryBytes(), pathBytes + count * 60);
  // Enough on each shard that none waits for a thread that has nothing.
  for (std::size_t i = 0; i < shardCount; ++i)
    EXPECT_NEAR(static_cast<double>(tree.shard(i).count()), count / 16., count / 80.);
}

}  // namespace
}  // namespace quillmark::SnapshotIndex
