// What trees take of the machine's memory, and how scans end that would take more.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "ScannerMachine.h"
#include "history/index/TreeMemory.h"

namespace quillmark {
namespace {

using sim::DirectoryCall;

TEST(ScanMemory, ATreeThatWouldTakeTheMachinesMemoryIsGivenUp) {
  ScannerMachine machine;
  machine.edit([](SimTree& tree) {
    for (int i = 0; i < 9'000; ++i) tree.write("/" + std::to_string(i % 3) + "/" + std::to_string(i), 1);
  });
  machine.freeze();
  for (const std::string& root : {live, snapshot}) {
    machine.reader.setMemorySize(300'000);
    EXPECT_EQ(machine.failureOf({.root = root}),
              "Quillmark.SnapshotScanner 3 Cannot scan " + root + ": its names take too much memory");
    machine.expectNothingLeftBehind();
    machine.reader.setMemorySize(20'000'000);
    EXPECT_EQ(machine.scan({.root = root}).size(), 9'004u);
  }
}

// Goal:   a tree read as a whole is counted while its paths are put together, not once they all are.
// Method: many directories, or many names of one file, under a long path; past the memory nobody asks any more whether the
//         scan was cancelled, and it is asked once for each few thousand names.
TEST(ScanMemory, AWholeTreeIsGivenUpBeforeItsPathsTakeTheMemory) {
  for (const bool areDirectories : {true, false}) {
    SCOPED_TRACE(areDirectories);
    ScannerMachine machine;
    machine.edit([&](SimTree& tree) {
      tree.write("/file", 1);
      tree.makeDirectory(deepWay());
      for (int i = 0; i < manyNames; ++i) {
        const std::string path = deepWay() + "/" + std::to_string(i);
        areDirectories ? tree.makeDirectory(path) : tree.link("/file", path);
      }
    });
    machine.freeze();
    // Half of it holds what was read, and the paths of some of the names.
    machine.reader.setMemorySize(18'000'000);
    int asked = 0;
    machine.reader.watchCalls([&](DirectoryCall call, const std::string&) {
      if (call == DirectoryCall::finish) asked = 0;
    });
    EXPECT_EQ(machine.failureOf({.root = snapshot, .parallel = false, .isCancelled = [&] { return ++asked < 0; }}),
              "Quillmark.SnapshotScanner 3 Cannot scan " + snapshot + ": its names take too much memory");
    EXPECT_LE(asked, 3) << "of at least 5 for all names";
    machine.expectNothingLeftBehind();
  }
}

TEST(ScanMemory, ADirectoryIsGivenUpBeforeItsPathsTakeTheMemory) {
  ScannerMachine machine;
  machine.edit([&](SimTree& tree) {
    for (int i = 0; i < manyNames; ++i) tree.makeDirectory(deepWay() + "/" + std::to_string(i));
  });
  // Half of it holds what was read of the directory, and some of the paths.
  machine.reader.setMemorySize(28'000'000);
  std::atomic<std::uint64_t> processed = 0;
  EXPECT_EQ(machine.failureOf({.root = live, .progress = [&](std::uint64_t count) { processed = count; }}),
            "Quillmark.SnapshotScanner 3 Cannot scan " + live + ": its names take too much memory");
  EXPECT_GT(processed, 0u);
  EXPECT_LT(processed, 15'000u);
  machine.expectNothingLeftBehind();
}

// Its only directory has always more, up to what nobody would wait for.
class EndlessReader final : public DirectoryReader {
 public:
  explicit EndlessReader(bool isBulkRefused) : isBulkRefused_(isBulkRefused) {}

  static constexpr std::size_t most = 1'000'000;
  std::size_t given = 0;

  SysResult<std::unique_ptr<OpenTree>> openTree(const std::string&) override {
    return std::unique_ptr<OpenTree>(std::make_unique<Tree>(*this));
  }
  unsigned processorCount() override { return 2; }
  std::uint64_t memorySize() override { return 20'000'000; }
  std::unique_ptr<LowPriority> lowerPriority() override { return nullptr; }

 private:
  class Directory final : public OpenDirectory {
   public:
    explicit Directory(EndlessReader& reader) : reader_(reader) {}
    SysResult<bool> readRecords(DirectoryRecords& into) override {
      const auto names = readNames();
      for (const std::string& name : *names) into.add(name, {.hasGeneration = true});
      return !names->empty();
    }
    SysResult<std::vector<std::string>> readNames() override {
      std::vector<std::string> names;
      while (reader_.given < most && names.size() < 100) names.push_back(std::to_string(reader_.given++));
      return names;
    }
    SysResult<FileFacts> lstat(const std::string&) override { return FileFacts{.hasGeneration = true}; }
    SysResult<std::uint64_t> generationOf(const std::string&) override { return Errno{ENOTSUP}; }
    SysResult<std::unique_ptr<FileLayout>> layoutOf(const std::string&) override { return Errno{ENOTSUP}; }

   private:
    EndlessReader& reader_;
  };
  class Tree final : public OpenTree {
   public:
    explicit Tree(EndlessReader& reader) : reader_(reader) {}
    const FileFacts& root() const override { return root_; }
    const std::string& ownPlace() const override { return none_; }
    SysResult<std::unique_ptr<FileLayout>> rootLayout() override { return Errno{EINVAL}; }
    SysResult<std::unique_ptr<WholeTree>> openWhole() override { return Errno{ENOTSUP}; }
    SysResult<std::unique_ptr<OpenDirectory>> open(const std::string& path) override {
      if (reader_.isBulkRefused_) return Errno{ENOTSUP};
      return opendir(path);
    }
    SysResult<std::unique_ptr<OpenDirectory>> opendir(const std::string&) override {
      return std::unique_ptr<OpenDirectory>(std::make_unique<Directory>(reader_));
    }
    SysResult<bool> isDataless(const std::string&) override { return false; }

   private:
    EndlessReader& reader_;
    const FileFacts root_{.inode = 256, .type = FileType::directory};
    const std::string none_;
  };

  const bool isBulkRefused_;
};

TEST(ScanMemory, ADirectoryThatNeverEndsIsGivenUp) {
  for (const bool isBulkRefused : {false, true}) {
    SCOPED_TRACE(isBulkRefused);
    ScannerMachine machine;
    EndlessReader reader(isBulkRefused);
    SnapshotScanner scanner(machine.dispatch, reader, {}, {});
    try {
      (void)scanner.scan({.root = live});
      ADD_FAILURE() << "all was read";
    } catch (const Error& error) {
      EXPECT_EQ(error.description(), "Cannot scan " + live + ": its names take too much memory");
    }
    EXPECT_LT(reader.given, reader.memorySize() / 2 / sizeof(FileFacts));
  }
}

// Whoever reads beside a tree that is still there has what that leaves.
TEST(ScanMemory, TreesShareTheMemoryUntilTheyAreGone) {
  ScannerMachine machine;
  machine.edit([](SimTree& tree) {
    for (int i = 0; i < 1'000; ++i) tree.write("/" + std::to_string(i), 1);
  });
  machine.freeze();
  const auto memory = std::make_shared<TreeMemory>(300'000);
  SnapshotScanner first(machine.dispatch, machine.reader, {}, {}, memory);
  SnapshotScanner second(machine.dispatch, machine.reader, {}, {}, memory);
  for (const std::string& root : {live, snapshot}) {
    {
      // As many more as one of them takes don't fit, whichever way they are read.
      SnapshotIndex::ShardedEntries kept;
      for (int i = 0; i < 2; ++i) kept = first.scan({.root = root});
      TreeClaim rest(memory);
      ASSERT_TRUE(rest.take(150'000));
      EXPECT_THROW((void)second.scan({.root = root}), Error);
    }
    EXPECT_EQ(second.scan({.root = root}).count(), 1'001u);
    TreeClaim all(memory);
    EXPECT_TRUE(all.take(300'000)) << "nothing is kept of trees that are gone, nor of failures";
  }
}

}  // namespace
}  // namespace quillmark
