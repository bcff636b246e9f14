#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "history/index/ExclusionRules.h"
#include "history/index/SnapshotIndex.h"

namespace quillmark {
namespace {

using testing::ElementsAre;
using Texts = std::vector<std::string>;

TEST(ExclusionRules, coverHomesKeptElsewhereByTheRulesForHomesUnderUsers) {
  struct Case {
    Texts written, homes;
    std::vector<Texts> compiled;
  };
  const Texts caches = {"Users", "*", "Library", "Caches"};
  const std::vector<Case> cases = {
      {{}, {"/Volumes/Big/me"}, {}},
      {{"/", "///", ""}, {}, {}},
      {{"Users/*/Library/Caches"}, {}, {caches}},
      {{"//Users//*/Library/Caches/"}, {"/Users/me"}, {caches}},
      {{"Users/*/Library/Caches"},
       {"Volumes/Big/me", "/", "/Users/me", "/Users", "/Users/me/deep"},
       {caches,
        {"Volumes", "Big", "me", "Library", "Caches"},
        {"Users", "Library", "Caches"},
        {"Users", "me", "deep", "Library", "Caches"}}},
      {{"Users/*", "Users/me/x", "Users", "*/*/x"},
       {"/b", "/a"},
       {{"Users", "*"}, {"Users", "me", "x"}, {"Users"}, {"*", "*", "x"}, {"b"}, {"a"}}},
      {{"Users/*/x", "Users/*/y"}, {"/a"}, {{"Users", "*", "x"}, {"Users", "*", "y"}, {"a", "x"}, {"a", "y"}}},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(ExclusionRules::compile(each.written, {}, each.homes).paths, each.compiled)
        << testing::PrintToString(each.homes);
  }
  EXPECT_THAT(ExclusionRules::compile({}, {"b", "a/c", "b"}, {}).names, ElementsAre("a/c", "b"));
}

TEST(ExclusionRules, matchOneDepthExactlyAndSpareTheEntryOfWhatTheyExclude) {
  const auto rules = ExclusionRules::compile({"Users/*/Library/Caches", "opt/a*", "*/tmp"}, {"node_modules"}, {});
  struct Case {
    Texts components;
    bool isExcluded, hasExcludedDescendants;
  };
  const std::vector<Case> cases = {
      {{"Users", "me", "Library", "Caches"}, true, true},
      {{"Users", "me", "Library"}, false, false},
      {{"Users", "me", "Library", "Caches", "x"}, false, true},
      {{"users", "me", "Library", "Caches"}, false, false},
      {{"Users", "Library", "Caches"}, false, false},
      {{"opt", "a*"}, true, true},
      {{"opt", "ab"}, false, false},
      {{"var", "tmp"}, true, true},
      {{"tmp"}, false, false},
      {{"node_modules"}, true, true},
      {{"a", "b", "node_modules"}, true, true},
      {{"a", "Node_modules"}, false, false},
  };
  for (const Case& each : cases) {
    std::string path;
    for (const std::string& component : each.components) path += "/" + component;
    EXPECT_EQ(isExcludedDirectory(each.components.back(), each.components, rules), each.isExcluded) << path;
    EXPECT_EQ(isExcludedDescendant(path + "/x", rules), each.hasExcludedDescendants) << path;
    const bool liesBelow = each.hasExcludedDescendants && !each.isExcluded;
    EXPECT_EQ(isExcludedDescendant(path, rules), liesBelow) << path;
    EXPECT_EQ(isExcludedDescendant("//" + path.substr(1) + "//", rules), liesBelow) << path;
  }
  EXPECT_FALSE(isExcludedDescendant("/", rules));
  EXPECT_FALSE(isExcludedDescendant("", rules));
}

TEST(SnapshotIndex, decodesTheStoredTypesAndNoOthers) {
  using SnapshotIndex::EntryType;
  std::int64_t raw = 0;
  for (const auto type : {EntryType::file, EntryType::directory, EntryType::symlink, EntryType::other}) {
    EXPECT_EQ(SnapshotIndex::entryType(++raw), type);
  }
  for (const std::int64_t none :
       {std::int64_t{-1}, std::int64_t{0}, std::int64_t{5}, std::int64_t{257}, std::int64_t{1} << 32 | 1}) {
    EXPECT_EQ(SnapshotIndex::entryType(none), std::nullopt) << none;
  }
}

// Reckoned apart from this code.
TEST(SnapshotIndex, foldsModeOwnerGroupAndFlagsAsWordsAndOnlyTheBitsOfPermission) {
  EXPECT_EQ(SnapshotIndex::metaBits(0644, 0, 0, 0), -3418441950429100271);
  EXPECT_EQ(SnapshotIndex::metaBits(0100644, 0, 0, 0), -3418441950429100271);
  EXPECT_EQ(SnapshotIndex::metaBits(040755, 1000, 100, 0x10), 3074559391130238692);
  EXPECT_EQ(SnapshotIndex::metaBits(07777, 0xffffffff, 0xffffffff, 0xffffffff), 957582004770923345);
}

}  // namespace
}  // namespace quillmark
