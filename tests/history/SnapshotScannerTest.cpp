#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <random>

#include "ScannerMachine.h"

namespace quillmark {
namespace {

using sim::DirectoryCall;
using SnapshotIndex::EntryType;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::string> pathsOf(const Tree& tree) {
  std::vector<std::string> paths;
  for (const auto& [path, facts] : tree) paths.push_back(path);
  return paths;
}

// The report for these counts, with what is singular for 1.
std::string report(int fallbacks, int dataless, const std::string& denied, const std::string& entries = {}) {
  return "scanner: bulk enumeration fell back to readdir for " + std::to_string(fallbacks) +
         (fallbacks == 1 ? " directory, " : " directories, ") + std::to_string(dataless) +
         " dataless (evicted) treated as empty, " + denied + entries + " under " + live;
}

TEST(SnapshotScanner, RootsOfEveryKindAreTold) {
  ScannerMachine machine;
  EXPECT_EQ(machine.failureOf({.root = live + "/missing"}),
            "Quillmark.SnapshotScanner 1 Cannot scan /Volumes/Data/missing: No such file or directory");
  std::vector<std::uint64_t> progress;
  const auto count = [&](std::uint64_t processed) { progress.push_back(processed); };
  const Tree empty = machine.scan({.root = live, .progress = count});
  EXPECT_THAT(pathsOf(empty), ElementsAre("/"));
  EXPECT_EQ(empty.at("/").size, 0);
  EXPECT_EQ(empty.at("/").parentInode, 0u);
  machine.edit([](SimTree& tree) {
    tree.write("/file", 42);
    tree.put("/link", {.inode = 9, .size = 7, .mode = 0777, .type = FileType::symlink});
  });
  const Tree file = machine.scan({.root = live + "/file", .progress = count});
  ASSERT_THAT(pathsOf(file), ElementsAre("/"));
  EXPECT_EQ(file.at("/").type, EntryType::file);
  EXPECT_EQ(file.at("/").size, 42);
  EXPECT_EQ(file.at("/").generation, 1);
  const Tree link = machine.scan({.root = live + "/link"});
  EXPECT_EQ(link.at("/").type, EntryType::symlink);
  EXPECT_EQ(link.at("/").size, 7);
  EXPECT_THAT(progress, ElementsAre(1, 1));
  machine.expectNothingLeftBehind();
}

TEST(SnapshotScanner, AnEntryIsMadeOfItsFacts) {
  ScannerMachine machine;
  const FileFacts facts{.inode = 77,
                        .size = 5,
                        .mtimeNS = -3,
                        .generation = 11,
                        .uid = 1,
                        .gid = 2,
                        .mode = 04751,
                        .flags = fileNoDump,
                        .type = FileType::regular,
                        .hasGeneration = true};
  FileFacts device = facts;
  device.inode = 78, device.type = FileType::other;
  FileFacts nested{.type = FileType::directory, .hasGeneration = true, .isPlaceholder = true};
  machine.edit([&](SimTree& tree) {
    tree.put("/a/file", facts);
    tree.put("/a/device", device);
    tree.put("/a/nested", nested);
    tree.put("/b/nested", nested);
  });
  machine.freeze();
  machine.edit([&](SimTree& tree) { tree.put("/a/nested/not of this tree", facts); });
  const Tree tree = machine.scan({.root = live});
  const auto meta = SnapshotIndex::metaBits(04751, 1, 2, fileNoDump);
  const std::uint64_t parent = tree.at("/a").inode;
  EXPECT_EQ(tree.at("/a/file"), (SnapshotIndex::Facts{EntryType::file, 77, parent, 5, -3, meta, 11}));
  EXPECT_EQ(tree.at("/a/device"), (SnapshotIndex::Facts{EntryType::other, 78, parent, 0, -3, meta, 0}));
  EXPECT_EQ(tree.at("/a").parentInode, 256u);
  EXPECT_THAT(pathsOf(tree), ElementsAre("/", "/a", "/a/device", "/a/file", "/a/nested", "/b", "/b/nested"));
  SnapshotIndex::Facts placeholder = tree.at("/a/nested");
  EXPECT_NE(placeholder.inode, tree.at("/b/nested").inode) << "two of them are never one object";
  placeholder.inode = placeholder.parentInode = 0;
  EXPECT_EQ(placeholder,
            (SnapshotIndex::Facts{.type = EntryType::directory, .metaBits = SnapshotIndex::metaBits(0, 0, 0, 0)}));
  EXPECT_EQ(machine.scan({.root = snapshot}), tree);
  EXPECT_THAT(machine.notes(), IsEmpty());
}

// Goal:   whatever stands in the way is put up with, told or ends the scan, as it says in one table.
// Method: one call fails for one path; the volume is read by its directories, once on one thread and once on several.
TEST(SnapshotScanner, FailuresArePutUpWithToldOrEndTheScan) {
  struct Failing {
    DirectoryCall call;
    std::string path;
    int error;
  };
  struct Case {
    std::string name;
    std::vector<Failing> failing;
    std::string lost;  // the one entry that isn't there
    std::string note, warning;
    std::string failure = "none";
    bool tolerant = true;
  };
  const std::string directory = live + "/d", file = live + "/d/f";
  const std::string first = "1 unreadable directory skipped (first: " + directory + ")",
                    none = "0 unreadable directories skipped";
  const auto posix = [](int error, const std::string& what) {
    return "NSPOSIXErrorDomain " + std::to_string(error) + " " + what + ": " + errnoText(error);
  };
  using enum DirectoryCall;
  const std::vector<Failing> shut = {{open, directory, EACCES}, {opendir, directory, EACCES}},
                             shutRoot = {{open, live, EACCES}, {opendir, live, EACCES}};
  const auto entryFails = [&](int error) {
    return std::vector<Failing>{{readRecords, directory, EACCES}, {lstat, file, error}};
  };
  const std::string fellBack = report(1, 0, none);
  const std::vector<Case> cases = {
      {"gone before it is read", {{open, directory, ENOENT}}, file},
      {"gone while it is read", {{readRecords, directory, ENOENT}}, file},
      {"bulk reading refused", {{open, directory, EACCES}}, "", fellBack},
      {"bulk reading unknown", {{readRecords, directory, ENOSYS}}, "", fellBack},
      {"unreadable", shut, file, "", report(1, 0, first)},
      {"unreadable names",
       {{open, directory, EPERM}, {readNames, directory, ENAMETOOLONG}},
       file,
       "",
       report(1, 0, first)},
      {"unreadable, strictly", shut, file, fellBack, "", posix(EACCES, "opendir " + directory), false},
      {"evicted", {{open, directory, EDEADLK}, {opendir, directory, EDEADLK}}, file, report(1, 1, none)},
      {"gone between the two", {{open, directory, EACCES}, {opendir, directory, ENOENT}}, file, fellBack},
      {"an unreadable entry", entryFails(EACCES), file, "",
       report(1, 0, none, ", 1 unreadable entry skipped (first: " + file + ")")},
      {"an entry that is gone", entryFails(ENOENT), file, fellBack},
      {"an entry that fails", entryFails(EIO), "", fellBack, "", posix(EIO, "lstat " + file)},
      {"an unreadable entry, strictly", entryFails(EPERM), "", fellBack, "", posix(EPERM, "lstat " + file), false},
      {"a failing disk", {{open, directory, EIO}}, "", "", "", posix(EIO, "open " + directory)},
      {"a failing read", {{readRecords, directory, EIO}}, "", "", "", posix(EIO, "getattrlistbulk " + directory)},
      {"a failing disk among names",
       {{open, directory, EACCES}, {readNames, directory, EIO}},
       "",
       fellBack,
       "",
       posix(EIO, "readdir " + directory)},
      {"malformed",
       {{readRecords, directory, EBADMSG}},
       "",
       "",
       "",
       "Quillmark.SnapshotScanner 2 Malformed bulk directory record in " + directory},
      {"the root unreadable", shutRoot, "", fellBack, "", posix(EACCES, "opendir " + live)},
      {"the root gone", {{open, live, ENOENT}}, "", "", "", posix(ENOENT, "open " + live)},
      {"an entry of the root",
       {{readRecords, live, EACCES}, {lstat, directory, EACCES}},
       "",
       fellBack,
       "",
       posix(EACCES, "lstat " + directory)},
  };
  for (const Case& one : cases) {
    for (const bool parallel : {false, true}) {
      SCOPED_TRACE(one.name + (parallel ? ", several threads" : ", one thread"));
      ScannerMachine machine;
      machine.edit([](SimTree& tree) { tree.write("/d/f", 1); });
      for (const Failing& failing : one.failing) machine.reader.fail(failing.call, failing.path, failing.error);
      ScanRequest request{.root = live, .parallel = parallel, .lowPriority = true, .tolerant = one.tolerant};
      if (one.failure == "none") {
        std::vector<std::string> expected = {"/", "/d", "/d/f"};
        std::erase(expected, one.lost.substr(std::min(one.lost.size(), live.size())));
        EXPECT_EQ(pathsOf(machine.scan(request)), expected);
      } else {
        EXPECT_EQ(machine.failureOf(request), one.failure);
      }
      EXPECT_EQ(machine.notes(), one.note.empty() ? std::vector<std::string>() : std::vector{one.note});
      EXPECT_EQ(machine.warnings(), one.warning.empty() ? std::vector<std::string>() : std::vector{one.warning});
      machine.expectNothingLeftBehind();
    }
  }
}

TEST(SnapshotScanner, ADirectoryThatSaysItIsEvictedIsEmpty) {
  ScannerMachine machine;
  machine.edit([](SimTree& tree) {
    for (const char* path : {"/d/f", "/e/f", "/g/f"}) tree.write(path, 1);
    for (const char* path : {"/d", "/e"}) {
      FileFacts facts = *tree.find(path);
      facts.isDataless = true;
      tree.change(path, facts);
    }
  });
  for (const auto& [name, error] : {std::pair{"/d", EPERM}, {"/e", EPERM}, {"/g", EPERM}}) {
    machine.reader.fail(DirectoryCall::open, live + name, error);
    machine.reader.fail(DirectoryCall::opendir, live + name, error);
  }
  EXPECT_THAT(pathsOf(machine.scan({.root = live, .parallel = false})), ElementsAre("/", "/d", "/e", "/g"));
  EXPECT_THAT(machine.warnings(), ElementsAre(report(3, 2, "1 unreadable directory skipped (first: " + live + "/g)")));
}

TEST(SnapshotScanner, InterruptedCallsAreTriedSixTimes) {
  for (const auto call : {DirectoryCall::openTree, DirectoryCall::open, DirectoryCall::readRecords}) {
    ScannerMachine machine;
    machine.edit([](SimTree& tree) { tree.write("/f", 1); });
    machine.reader.fail(call, live, EINTR, 5);
    EXPECT_EQ(machine.scan({.root = live}).size(), 2u);
    EXPECT_THAT(machine.notes(), IsEmpty());
  }
  ScannerMachine machine;
  std::atomic<int> calls = 0;
  machine.reader.watchCalls([&](DirectoryCall call, const std::string&) { calls += call == DirectoryCall::openTree; });
  machine.reader.fail(DirectoryCall::openTree, live, EINTR);
  EXPECT_EQ(machine.failureOf({.root = live}),
            "Quillmark.SnapshotScanner 1 Cannot scan /Volumes/Data: Interrupted system call");
  EXPECT_EQ(calls, 6);
}

TEST(SnapshotScanner, TheWitnessOfContentGoesThroughItsSteps) {
  struct Case {
    const char* name;
    FileFacts facts;
    std::optional<std::uint64_t> asked;
    std::optional<sim::SimLayout> layout;
    std::int64_t expected;
  };
  const FileFacts plain{.inode = 9, .size = 100, .type = FileType::regular};
  FileFacts counted = plain, zero = plain, dataless = plain;
  counted.generation = 5, counted.hasGeneration = true;
  zero.hasGeneration = true;
  dataless.isDataless = true;
  constexpr std::uint64_t basis = 0xcbf29ce484222325, p = 0x100000001b3;
  const auto step = [](std::uint64_t h, std::uint64_t offset, std::uint64_t device, std::uint64_t length) {
    return (((device ^ ((offset ^ h) * p)) * p) ^ length) * p;
  };
  const auto hashed = static_cast<std::int64_t>(step(step(basis, 0, 4096, 60), 60, 9000, 40));
  const sim::SimLayout layout{.size = 100, .changedNS = 123, .runs = {{60, 4096}, {40, 9000}}};
  sim::SimLayout broken = layout, stuck = layout, none = layout;
  broken.runs.pop_back(), broken.error = EOPNOTSUPP;
  stuck.runs[1].length = 0;
  none.size = 0;
  for (const Case& one : {Case{"counted", counted, {}, layout, 5}, Case{"known to have none", zero, 7, layout, 0},
                          Case{"asked for", plain, 7, layout, 7}, Case{"asked in vain", plain, 0, layout, hashed},
                          Case{"laid out", plain, {}, layout, hashed}, Case{"layout fails", plain, {}, broken, 123},
                          Case{"layout stands still", plain, {}, stuck, 123}, Case{"empty", plain, {}, none, 0},
                          Case{"can't be opened", plain, {}, {}, 0}, Case{"evicted", dataless, {}, layout, 0}}) {
    for (const bool byNames : {false, true}) {
      SCOPED_TRACE(one.name);
      ScannerMachine machine;
      machine.edit([&](SimTree& tree) { tree.put("/f", one.facts); });
      if (one.asked) machine.reader.setGeneration(live + "/f", *one.asked);
      if (one.layout) machine.reader.setLayout(live + "/f", *one.layout);
      if (byNames) machine.reader.fail(DirectoryCall::open, live, ENOTSUP);
      EXPECT_EQ(machine.scan({.root = live}).at("/f").generation, one.expected);
      machine.expectNothingLeftBehind();
    }
  }
}

void fillAtRandom(SimTree& tree, std::mt19937_64& random, int entries) {
  std::vector<std::string> directories = {""}, files;
  for (int i = 0; i < entries; ++i) {
    const std::string path = directories[random() % directories.size()] + "/" +
                             (random() % 8 == 0 ? "skipped" : "n" + std::to_string(random() % 100));
    if (tree.find(path)) continue;
    switch (random() % 6) {
      case 0:
        tree.makeDirectory(path);
        directories.push_back(path);
        break;
      case 1: tree.makeLink(path); break;
      case 2:
        if (!files.empty()) tree.link(files[random() % files.size()], path);
        break;
      case 3: tree.put(path, {.type = FileType::directory, .hasGeneration = true, .isPlaceholder = true}); break;
      default: tree.write(path, static_cast<std::int64_t>(random() % 10'000)); files.push_back(path);
    }
  }
}

// Goal:   one tree comes out whichever way it is read, on however many threads, exclusions and our own place included.
// Method: trees at random; the volume's directories against the snapshot as a whole, and both against the rules asked for
//         each path of the scan without them.
TEST(SnapshotScanner, BothRoadsGiveTheSameTreeAndKeepTheRules) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    ScannerMachine machine;
    machine.edit([&](SimTree& tree) {
      fillAtRandom(tree, random, 300);
      tree.write("/.place/ours", 1);
      tree.write("/elsewhere/.place/theirs", 1);
    });
    machine.freeze();
    machine.reader.setOwnPlace(".place");
    const ExclusionRules rules = ExclusionRules::compile({"base/n1/*", "base/*/n2/n3"}, {"skipped"}, {});
    Tree expected;
    for (const auto& [path, facts] : machine.scan({.root = live, .parallel = false})) {
      EXPECT_FALSE(path.starts_with("/.place")) << path;
      if (!isExcludedDescendant("/base" + path, rules) || path == "/") expected.emplace(path, facts);
    }
    EXPECT_TRUE(expected.contains("/elsewhere/.place/theirs"));
    for (const std::string& root : {live, snapshot}) {
      for (const bool parallel : {false, true}) {
        const Tree tree =
            machine.scan({.root = root, .parallel = parallel, .rules = rules, .baseComponents = {"base"}});
        EXPECT_EQ(pathsOf(tree), pathsOf(expected));
        EXPECT_EQ(tree, expected);
      }
    }
    EXPECT_THAT(machine.notes(), IsEmpty());
    machine.expectNothingLeftBehind();
  }
}

// Anybody can nest directories without end; each entry in them would take the whole path's memory.
TEST(SnapshotScanner, ADirectoryPastTheLongestPathIsAnEntryAndIsNotEntered) {
  ScannerMachine machine;
  std::string way;
  for (int i = 0; i < 40; ++i) way += "/" + std::string(250, 'd');
  machine.edit([&](SimTree& tree) {
    tree.write(way + "/unreachable", 1);
    tree.write("/reachable", 1);
  });
  machine.freeze();
  for (const std::string& root : {live, snapshot}) {
    SCOPED_TRACE(root);
    const Tree tree = machine.scan({.root = root});
    EXPECT_EQ(tree.size(), 2u + 17u);
    EXPECT_TRUE(tree.contains("/reachable"));
    EXPECT_TRUE(tree.contains(way.substr(0, 17 * 251)));
    const auto warnings = machine.warnings();
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_THAT(warnings[0],
                ::testing::HasSubstr("1 unreadable directory skipped (first: " + root + way.substr(0, 17 * 251)));
  }
}

TEST(SnapshotScanner, WhatWasLeftOutIsToldAlsoAfterAFailure) {
  ScannerMachine machine;
  std::string way;
  for (int i = 0; i < 40; ++i) way += "/" + std::string(250, 'd');
  machine.edit([&](SimTree& tree) {
    tree.write(way + "/unreachable", 1);
    tree.write("/file", 1);
    tree.makeDirectory(deepWay());
    for (int i = 0; i < manyNames; ++i) tree.link("/file", deepWay() + "/" + std::to_string(i));
  });
  machine.freeze();
  const auto told = ::testing::ElementsAre(::testing::HasSubstr("1 unreadable directory skipped"));
  // Half of it holds what was read, and the directories.
  machine.reader.setMemorySize(18'000'000);
  EXPECT_THAT(machine.failureOf({.root = snapshot, .parallel = false}), ::testing::HasSubstr("too much memory"));
  EXPECT_THAT(machine.warnings(), told);
  machine.reader.setMemorySize(100'000'000);
  // Cancelled when all is read.
  int asked = 0;
  bool isRead = false;
  machine.reader.watchCalls([&](DirectoryCall call, const std::string&) { isRead = call == DirectoryCall::finish; });
  const auto isCancelled = [&] { return isRead && ++asked == 3; };
  EXPECT_THAT(machine.failureOf({.root = snapshot, .parallel = false, .isCancelled = isCancelled}),
              ::testing::HasSubstr(errnoText(ECANCELED)));
  EXPECT_THAT(machine.warnings(), told);
}

TEST(SnapshotScanner, AWholeTreeThatCantBeReadIsReadByItsDirectoriesWithOneNote) {
  for (const auto& [call, error] : {std::pair{DirectoryCall::openWhole, EACCES},
                                    {DirectoryCall::readPiece, EIO},
                                    {DirectoryCall::readPiece, EBADMSG},
                                    {DirectoryCall::finish, ESTALE}}) {
    ScannerMachine machine;
    std::mt19937_64 random(7);
    machine.edit([&](SimTree& tree) { fillAtRandom(tree, random, 100); });
    machine.freeze();
    const Tree expected = machine.scan({.root = live});
    machine.reader.fail(call, snapshot, error);
    EXPECT_EQ(machine.scan({.root = snapshot}), expected);
    EXPECT_THAT(machine.notes(), ElementsAre("scanner: /mounts/snapshot can't be read as a whole (" + errnoText(error) +
                                             "), reading its directories"));
    machine.expectNothingLeftBehind();
  }
}

TEST(SnapshotScanner, ProgressIsToldAtEachFiveThousandAndAtTheEnd) {
  ScannerMachine machine;
  machine.edit([](SimTree& tree) {
    for (int i = 1; i < 5'000; ++i) tree.write("/" + std::to_string(i), 1);
  });
  machine.freeze();
  for (const std::string& root : {live, snapshot}) {
    for (const bool parallel : {false, true}) {
      Guarded<std::vector<std::uint64_t>> told(machine.dispatch);
      const auto tell = [&](std::uint64_t processed) { told.with([&](auto& all) { all.push_back(processed); }); };
      // While it is read, not only when all is there.
      bool wasToldBefore = root == live;
      machine.reader.watchCalls([&](DirectoryCall call, const std::string&) {
        if (call == DirectoryCall::finish) wasToldBefore = told.with([](auto& all) { return all.size() == 1; });
      });
      EXPECT_EQ(machine.scan({.root = root, .parallel = parallel, .progress = tell}).size(), 5'000u);
      EXPECT_THAT(told.with([](auto& all) { return all; }), ElementsAre(5'000, 5'000));
      EXPECT_TRUE(wasToldBefore);
    }
  }
}

// Goal:   a scan that is told to end ends wherever it stands, and leaves nothing behind.
// Method: it is told at the n-th call of the reader, n = 1, 2, ... until it ends untold.
TEST(SnapshotScanner, ACancelledScanEndsAtOnceWhereverItStands) {
  for (const std::string& root : {live, snapshot}) {
    for (const bool parallel : {false, true}) {
      ScannerMachine machine;
      std::mt19937_64 random(3);
      machine.edit([&](SimTree& tree) { fillAtRandom(tree, random, 60); });
      machine.freeze();
      int at = 1;
      for (bool isWhole = false; !isWhole; ++at) {
        std::atomic<int> calls = 0, late = 0;
        std::atomic<bool> cancelled = false;
        machine.reader.watchCalls([&](DirectoryCall, const std::string&) {
          late += cancelled;
          if (++calls == at) cancelled = true;
        });
        const ScanRequest request{
            .root = root, .parallel = parallel, .lowPriority = true, .isCancelled = [&] { return cancelled.load(); }};
        const std::string failure = machine.failureOf(request);
        isWhole = failure == "none";
        if (!isWhole) {
          EXPECT_EQ(failure, "NSPOSIXErrorDomain 125 " + posixError("scan", root, ECANCELED).description());
        }
        // Each thread may have been about to make its next call.
        EXPECT_LE(late, 12) << at;
        machine.expectNothingLeftBehind();
        EXPECT_THAT(machine.notes(), IsEmpty());
      }
      EXPECT_GT(at, 5);
    }
  }
}

// The same, told at the n-th question: also when all is read and only sorted any more.
TEST(SnapshotScanner, AScanAsksToItsEndWhetherItIsCancelled) {
  ScannerMachine machine;
  std::mt19937_64 random(3);
  machine.edit([&](SimTree& tree) { fillAtRandom(tree, random, 60); });
  machine.freeze();
  std::atomic<int> asked = 0;
  int n = 1;
  for (bool isWhole = false; !isWhole; ++n) {
    asked = 0;
    isWhole = machine.failureOf({.root = snapshot, .isCancelled = [&] { return ++asked >= n; }}) == "none";
    EXPECT_EQ(isWhole, asked < n);
  }
  EXPECT_GT(n, 16);  // each of the shards asks
}

// Directories are read by two threads less than there are processors, two at least and four at most. Reading a whole tree
// takes a thread a processor, and eight once the disk is waited for; then one places the directories, and as many as there
// are processors hand in.
TEST(SnapshotScanner, AsManyThreadsAsTheRoadWantsHaveLowPriority) {
  struct Case {
    std::string root;
    bool parallel;
    unsigned processors;
    bool isSlow;
    int threads;
  };
  for (const Case& one :
       {Case{live, false, 8, false, 1}, Case{live, true, 1, false, 2}, Case{live, true, 5, false, 3},
        Case{live, true, 64, false, 4}, Case{snapshot, false, 3, false, 3}, Case{snapshot, false, 3, true, 3},
        Case{snapshot, true, 3, false, 3 + 1 + 3}, Case{snapshot, true, 3, true, 8 + 1 + 3}}) {
    ScannerMachine machine;
    machine.edit([](SimTree& tree) { tree.write("/a/b", 1); });
    machine.freeze();
    machine.reader.setProcessorCount(one.processors);
    if (one.isSlow) machine.reader.setWaited(std::chrono::milliseconds(10));
    EXPECT_EQ(machine.scan({.root = one.root, .parallel = one.parallel, .lowPriority = true}).size(), 3u);
    EXPECT_EQ(machine.reader.loweredEver(), one.threads);
    EXPECT_EQ(machine.scan({.root = one.root, .parallel = one.parallel}).size(), 3u);
    EXPECT_EQ(machine.reader.loweredEver(), one.threads) << "as asked for";
    machine.expectNothingLeftBehind();
  }
}

}  // namespace
}  // namespace quillmark
