#include <gmock/gmock.h>

#include <set>

#include "history/index/Comparison.h"
#include "tests/history/index/RandomTrees.h"
#include "tests/platform/DispatchBackends.h"

namespace quillmark::SnapshotIndex {
namespace {

using enum ComparisonMode;
using testing::ElementsAre;
using testing::IsEmpty;

class ComparisonSuite : public contract::DispatchSuite {};
INSTANTIATE_TEST_SUITE_P(Trees, ComparisonSuite, testing::ValuesIn(contract::backends()), contract::backendName);

// ---- the naive model, step by step over maps

bool differ(const Facts& a, const Facts& b, ComparisonMode mode) {
  const bool inodeChanged = mode == snapshotLineage && a.inode != b.inode;
  if (a.type == EntryType::directory) return inodeChanged || a.metaBits != b.metaBits;
  const bool contents = a.size != b.size || a.mtimeNS != b.mtimeNS || a.metaBits != b.metaBits;
  if (mode == independentTrees) return contents;
  return inodeChanged || contents || (a.generation != 0 && b.generation != 0 && a.generation != b.generation);
}

DiffOutput classified(const Model& first, const Model& second, ComparisonMode mode) {
  DiffOutput output;
  for (const auto& [path, facts] : first) {
    const auto other = second.find(path);
    if (other == second.end()) {
      output.deleted.emplace_back(facts, path);
    } else if (facts.type != other->second.type) {
      output.replaced.push_back({Entry(facts, path), Entry(other->second, path)});
    } else if (differ(facts, other->second, mode)) {
      output.modified.push_back({Entry(facts, path), Entry(other->second, path)});
    }
  }
  for (const auto& [path, facts] : second) {
    if (!first.contains(path)) output.added.emplace_back(facts, path);
  }
  return output;
}

DiffOutput withMoves(DiffOutput output) {
  std::map<std::uint64_t, std::vector<Entry>> deleted, added;
  for (const Entry& entry : output.deleted) deleted[entry.inode].push_back(entry);
  for (const Entry& entry : output.added) added[entry.inode].push_back(entry);
  for (const auto& [inode, gone] : deleted) {
    const auto come = added.find(inode);
    if (gone.size() != 1 || come == added.end() || come->second.size() != 1) continue;
    const Pair pair{gone[0], come->second[0]};
    if (pair.a.type != pair.b.type) continue;
    output.moved.push_back(pair);
    std::erase(output.deleted, pair.a);
    std::erase(output.added, pair.b);
  }
  return output;
}

// Rows in an order of their own: none is told.
DiffOutput sorted(DiffOutput output) {
  const auto byPath = [](const Entry& a, const Entry& b) { return a.path < b.path; };
  const auto byFirstPath = [](const Pair& a, const Pair& b) { return a.a.path < b.a.path; };
  for (auto* list : {&output.added, &output.deleted}) std::sort(list->begin(), list->end(), byPath);
  for (auto* list : {&output.modified, &output.replaced, &output.moved})
    std::sort(list->begin(), list->end(), byFirstPath);
  return output;
}

void expectSame(const DiffOutput& left, const DiffOutput& right) {
  const DiffOutput a = sorted(left), b = sorted(right);
  EXPECT_EQ(a.added, b.added);
  EXPECT_EQ(a.deleted, b.deleted);
  EXPECT_EQ(a.modified, b.modified);
  EXPECT_EQ(a.replaced, b.replaced);
  EXPECT_EQ(a.moved, b.moved);
  EXPECT_EQ(a.truncated, b.truncated);
  EXPECT_EQ(a.totalChangeCount, b.totalChangeCount);
}

std::int64_t rows(const DiffOutput& output) {
  return std::ssize(output.added) + std::ssize(output.deleted) + std::ssize(output.modified) +
         std::ssize(output.replaced) + std::ssize(output.moved);
}

// Goal:   comparisons say what the steps over two maps say, in all modes, on threads and without.
// Method: random trees and random changes to them; each list, whole.
TEST_P(ComparisonSuite, findsWhatANaiveOneFinds) {
  on([&](Dispatch& dispatch) {
    std::set<std::string> seen;
    for (std::uint64_t seed = 1; seed <= 40; ++seed) {
      for (const ComparisonMode mode : {snapshotLineage, independentTrees, copyOnWriteTrees}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed << " mode " << static_cast<int>(mode));
        RandomTrees random(seed);
        const Model a = random.model(seed * 20), b = random.changed(a);
        const ShardedEntries first = random.tree(dispatch, a), second = random.tree(dispatch, b);
        DiffOutput wanted = classified(a, b, mode);
        expectSame(diffMaps(first, second, mode), wanted);
        DiffOutput moved = wanted;
        detectMoves(moved);
        expectSame(moved, withMoves(wanted));
        if (mode == snapshotLineage) wanted = withMoves(std::move(wanted));
        wanted.totalChangeCount = rows(wanted);
        expectSame(diff(first, second, mode), wanted);
        expectSame(diffSharded(dispatch, first, second, mode), wanted);
        for (const auto& [what, count] : {std::pair("added", wanted.added.size()),
                                          {"deleted", wanted.deleted.size()},
                                          {"modified", wanted.modified.size()},
                                          {"replaced", wanted.replaced.size()},
                                          {"moved", wanted.moved.size()}}) {
          if (count > 0) seen.insert(what);
        }
      }
    }
    EXPECT_EQ(seen.size(), 5u);
  });
}

// ---- the cases that the rules turn on

struct Found {
  std::size_t added, deleted, modified, replaced, moved;
  bool operator==(const Found&) const = default;
};
Found found(const std::vector<Entry>& a, const std::vector<Entry>& b, ComparisonMode mode) {
  ShardedEntries first, second;
  for (const Entry& entry : a) first.insert(entry.view());
  for (const Entry& entry : b) second.insert(entry.view());
  const DiffOutput output = diff(first, second, mode);
  EXPECT_FALSE(output.truncated);
  EXPECT_EQ(output.totalChangeCount, rows(output));
  return {output.added.size(), output.deleted.size(), output.modified.size(), output.replaced.size(),
          output.moved.size()};
}

TEST(Comparison, tellsChangesFromSilence) {
  const auto entry = [](EntryType type, std::string_view path, std::uint64_t inode, std::int64_t generation = 1) {
    return Entry({.type = type, .inode = inode, .size = 3, .mtimeNS = 5, .metaBits = 7, .generation = generation},
                 path);
  };
  const auto file = [&](std::string_view path, std::uint64_t inode, std::int64_t generation = 1) {
    return entry(EntryType::file, path, inode, generation);
  };
  const Entry directory = entry(EntryType::directory, "/a", 1);
  Entry touchedDirectory = directory, lockedDirectory = directory;
  touchedDirectory.mtimeNS = 6;
  touchedDirectory.size = 9;
  touchedDirectory.generation = 8;
  lockedDirectory.metaBits = 8;
  const Found nothing{}, modified{0, 0, 1, 0, 0}, replaced{0, 0, 0, 1, 0}, moved{0, 0, 0, 0, 1}, both{1, 1, 0, 0, 0};
  const Found besides{1, 0, 0, 1, 0}, twoForOne{1, 2, 0, 0, 0}, oneForTwo{2, 1, 0, 0, 0};
  struct Case {
    const char* what;
    std::vector<Entry> a, b;
    Found lineage, independent, copyOnWrite;
  };
  const std::vector<Case> cases = {
      {"two empty trees", {}, {}, nothing, nothing, nothing},
      {"another generation", {file("/a", 1, 1)}, {file("/a", 1, 2)}, modified, nothing, modified},
      {"a generation not known before", {file("/a", 1, 0)}, {file("/a", 1, 2)}, nothing, nothing, nothing},
      {"a generation not known after", {file("/a", 1, 2)}, {file("/a", 1, 0)}, nothing, nothing, nothing},
      {"a directory whose contents changed", {directory}, {touchedDirectory}, nothing, nothing, nothing},
      {"a directory with another mode", {directory}, {lockedDirectory}, modified, modified, modified},
      {"another inode", {file("/a", 1)}, {file("/a", 2)}, modified, nothing, nothing},
      {"another directory", {directory}, {entry(EntryType::directory, "/a", 2)}, modified, nothing, nothing},
      {"file to link", {file("/a", 1)}, {entry(EntryType::symlink, "/a", 1)}, replaced, replaced, replaced},
      {"a link in the place of a moved file",
       {file("/a", 1)},
       {entry(EntryType::symlink, "/a", 2), file("/b", 1)},
       besides,
       besides,
       besides},
      {"a file elsewhere", {file("/a", 1)}, {file("/d/b", 1)}, moved, both, both},
      {"elsewhere and written anew", {file("/a", 1, 1)}, {file("/b", 1, 2)}, moved, both, both},
      {"one of two links elsewhere", {file("/a", 1), file("/b", 1)}, {file("/a", 1), file("/c", 1)}, moved, both, both},
      {"two links gone, one new", {file("/a", 1), file("/b", 1)}, {file("/c", 1)}, twoForOne, twoForOne, twoForOne},
      {"one gone, two links new", {file("/a", 1)}, {file("/b", 1), file("/c", 1)}, oneForTwo, oneForTwo, oneForTwo},
      {"a file's inode on a directory", {file("/a", 1)}, {entry(EntryType::directory, "/b", 1)}, both, both, both},
      {"a directory elsewhere with its child",
       {directory, file("/a/x", 2)},
       {entry(EntryType::directory, "/b", 1), file("/b/x", 2)},
       {0, 0, 0, 0, 2},
       {2, 2, 0, 0, 0},
       {2, 2, 0, 0, 0}},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(found(each.a, each.b, snapshotLineage), each.lineage) << each.what;
    EXPECT_EQ(found(each.a, each.b, independentTrees), each.independent) << each.what;
    EXPECT_EQ(found(each.a, each.b, copyOnWriteTrees), each.copyOnWrite) << each.what;
  }
}

// ---- the cap

DiffOutput output(std::size_t deleted, std::size_t modified, std::size_t replaced, std::size_t moved,
                  std::size_t added) {
  DiffOutput output;
  output.deleted.resize(deleted);
  output.modified.resize(modified);
  output.replaced.resize(replaced);
  output.moved.resize(moved);
  output.added.resize(added);
  for (std::size_t i = 0; i < deleted; ++i) output.deleted[i].inode = i;
  return output;
}

TEST(Comparison, cutsListsInTheirOrderAndKeepsTheTrueCount) {
  using Sizes = std::array<std::size_t, 5>;
  struct Case {
    std::int64_t limit;
    bool truncated;
    Sizes left;
  };
  for (const Case& each : std::vector<Case>{{15, false, {1, 2, 3, 4, 5}},
                                            {16, false, {1, 2, 3, 4, 5}},
                                            {14, true, {1, 2, 3, 4, 4}},
                                            {10, true, {1, 2, 3, 4, 0}},
                                            {8, true, {1, 2, 3, 2, 0}},
                                            {4, true, {1, 2, 1, 0, 0}},
                                            {1, true, {1, 0, 0, 0, 0}},
                                            {0, true, {}},
                                            {-1, true, {}}}) {
    const DiffOutput cut = capped(output(1, 2, 3, 4, 5), each.limit);
    const Sizes sizes = {cut.deleted.size(), cut.modified.size(), cut.replaced.size(), cut.moved.size(),
                         cut.added.size()};
    EXPECT_EQ(sizes, each.left) << each.limit;
    EXPECT_EQ(cut.truncated, each.truncated) << each.limit;
    EXPECT_EQ(cut.totalChangeCount, 15) << each.limit;
  }
  EXPECT_FALSE(capped({}, 0).truncated);
  EXPECT_TRUE(capped({}, -1).truncated);
  const DiffOutput cut = capped(output(5, 0, 0, 0, 0), 2);
  EXPECT_EQ(cut.deleted[0].inode, 0u);
  EXPECT_EQ(cut.deleted[1].inode, 1u);
  DiffOutput alreadyCut;
  alreadyCut.truncated = true;
  EXPECT_TRUE(capped(std::move(alreadyCut), 10).truncated);
}

TEST(Comparison, carriesAQuarterOfAMillionRowsAndNoneMore) {
  contract::LinuxBackend backend;
  const auto tree = [&](std::string_view directory, std::size_t count, std::uint64_t inodes) {
    EntryBuckets buckets;
    for (std::size_t i = 0; i < count; ++i) {
      append(buckets, std::string(directory) + std::to_string(i % 50), std::to_string(i), {.inode = inodes + i});
    }
    return ShardedEntries(backend.dispatch(), std::move(buckets));
  };
  const ShardedEntries added = tree("/new", 10, 1'000'000);
  const DiffOutput cut = diffSharded(backend.dispatch(), tree("/old", 250'001, 0), added, snapshotLineage);
  EXPECT_EQ(cut.deleted.size(), 250'000u);
  EXPECT_THAT(cut.added, IsEmpty());
  EXPECT_TRUE(cut.truncated);
  EXPECT_EQ(cut.totalChangeCount, 250'011);
  const DiffOutput whole = diffSharded(backend.dispatch(), tree("/old", 249'990, 0), added, snapshotLineage);
  EXPECT_EQ(whole.deleted.size(), 249'990u);
  EXPECT_EQ(whole.added.size(), 10u);
  EXPECT_FALSE(whole.truncated);
  EXPECT_EQ(whole.totalChangeCount, 250'000);
}

}  // namespace
}  // namespace quillmark::SnapshotIndex
