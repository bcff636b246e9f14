#include <gmock/gmock.h>

#include <set>

#include "base/Error.h"
#include "platform/Files.h"
#include "platform/sim/FaultSweep.h"

namespace quillmark::sim {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

void demand(const SysStatus& status, const char* call) {
  if (!status) throw posixError(call, "test", status.error());
}

OpenFile opened(SimPosix& posix, const std::string& name, OpenFlags flags) {
  const SysResult<int> fd = posix.open(posix.root() + "/" + name, flags);
  if (!fd) throw posixError("open", name, fd.error());
  return OpenFile(posix, *fd);
}

void writeAll(SimPosix& posix, int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const SysResult<std::size_t> count = posix.write(fd, bytes);
    if (!count) throw posixError("write", "test", count.error());
    bytes.remove_prefix(*count);
  }
}

void put(SimPosix& posix, const std::string& name, std::string_view contents, bool sync) {
  const OpenFile file = opened(posix, name, {.write = true, .create = true, .truncate = true});
  writeAll(posix, file.get(), contents);
  if (sync) demand(posix.fsync(file.get()), "fsync");
}

std::string contentsOf(SimPosix& posix, const std::string& name) {
  return readFile(posix, posix.root() + "/" + name).value_or("[none]");
}

const std::string oldContents = "old";
const std::string newContents(3000, 'n');

enum class Care { none, contents, contentsAndName };

std::vector<std::string> complaintsOfReplacing(Care care) {
  const auto replace = [&](SimPosix& posix) {
    put(posix, "store.new", newContents, care != Care::none);
    demand(posix.rename(posix.root() + "/store.new", posix.root() + "/store"), "rename");
    if (care == Care::contentsAndName) syncNamesIn(posix, posix.root());
  };
  return forEachFault(
      {}, [](SimPosix& posix) { put(posix, "store", oldContents, true); }, replace,
      [](SimPosix& after, const FaultRun& run) -> std::string {
        const std::string found = contentsOf(after, "store");
        if (found != oldContents && found != newContents) return "torn: " + std::to_string(found.size()) + " bytes";
        return run.completed && found != newContents ? "lost" : "";
      });
}

TEST(FaultSweepTest, replacingAFileIsSafeOnlyWithBothSyncs) {
  const auto naive = complaintsOfReplacing(Care::none);
  EXPECT_THAT(naive, Contains(HasSubstr("torn")));
  for (const std::string& complaint : naive) EXPECT_THAT(complaint, HasSubstr("power cut"));
  const auto nameForgotten = complaintsOfReplacing(Care::contents);
  EXPECT_THAT(nameForgotten, Contains(HasSubstr("lost")));
  EXPECT_THAT(nameForgotten, Not(Contains(HasSubstr("torn"))));
  EXPECT_THAT(complaintsOfReplacing(Care::contentsAndName), IsEmpty());
}

TEST(FaultSweepTest, appendingNeverTouchesWhatWasSynced) {
  const auto append = [](SimPosix& posix) {
    const OpenFile file = opened(posix, "log", {.write = true, .append = true});
    writeAll(posix, file.get(), "second\n");
    demand(posix.fsync(file.get()), "fsync");
  };
  std::set<std::string> seen;
  const auto complaints = forEachFault(
      {.powerCutsEach = 40}, [](SimPosix& posix) { put(posix, "log", "first\n", true); }, append,
      [&](SimPosix& after, const FaultRun& run) -> std::string {
        const std::string found = contentsOf(after, "log");
        seen.insert(found);
        if (found.compare(0, 6, "first\n") != 0) return "damaged";
        return run.completed && found != "first\nsecond\n" ? "lost" : "";
      });
  EXPECT_THAT(complaints, IsEmpty());
  EXPECT_THAT(seen, Contains("first\n"));
  EXPECT_THAT(seen, Contains(std::string("first\n\0\0\0\0\0\0\0", 13)));
  EXPECT_GT(seen.size(), 5U);
}

// Goal:   a removal that was not synced may come undone, with the file as it was; a synced one never.
TEST(FaultSweepTest, removalsComeUndoneUntilTheyAreSynced) {
  const auto afterCuts = [](bool sync) {
    SimPosix posix;
    put(posix, "file", "kept", true);
    syncNamesIn(posix, posix.root());
    demand(posix.unlink(posix.root() + "/file"), "unlink");
    if (sync) syncNamesIn(posix, posix.root());
    std::set<std::string> found;
    for (std::uint64_t seed = 0; seed < 20; ++seed) found.insert(contentsOf(*posix.powerCut(seed), "file"));
    return found;
  };
  EXPECT_EQ(afterCuts(false), (std::set<std::string>{"[none]", "kept"}));
  EXPECT_EQ(afterCuts(true), (std::set<std::string>{"[none]"}));
}

TEST(FaultPlanTest, theChosenCallFailsAndNoOther) {
  SimPosix posix;
  put(posix, "file", "x", true);
  posix.setPlan({.fault = Fault::fail, .atCall = 2, .only = PosixCall::lstat, .error = EACCES});
  const std::string path = posix.root() + "/file";
  EXPECT_TRUE(posix.lstat(path).ok());
  EXPECT_TRUE(posix.chmod(path, 0600).ok());
  EXPECT_EQ(posix.lstat(path).error(), EACCES);
  EXPECT_TRUE(posix.lstat(path).ok());
  EXPECT_TRUE(posix.faultFired());
  EXPECT_EQ(posix.calls(), 4U);
}

TEST(FaultPlanTest, aShortWriteWritesHalf) {
  SimPosix posix;
  const OpenFile file = opened(posix, "file", {.write = true, .create = true});
  posix.setPlan({.fault = Fault::shortWrite, .atCall = 1, .only = PosixCall::write});
  EXPECT_EQ(*posix.write(file.get(), "123456"), 3U);
  EXPECT_EQ(*posix.write(file.get(), "456"), 3U);
  EXPECT_EQ(contentsOf(posix, "file"), "123456");
}

// Goal:   a killed life leaves everything as it stood, and what its destructors ask for has no effect.
TEST(FaultPlanTest, aKillLeavesTheFilesAsTheyStood) {
  SimPosix posix;
  const std::string path = posix.root() + "/file";
  posix.setPlan({.fault = Fault::kill, .atCall = 1, .only = PosixCall::fsync});
  try {
    struct Cleanup {
      SimPosix& posix;
      const std::string& path;
      ~Cleanup() { static_cast<void>(posix.unlink(path)); }
    } const cleanup{posix, path};
    put(posix, "file", "unsynced", true);
    FAIL() << "the kill did not happen";
  } catch (const SimulatedKill&) {
  }
  EXPECT_EQ(posix.lstat(path).error(), EIO);
  const std::unique_ptr<SimPosix> next = posix.copyForSuccessor();
  EXPECT_EQ(contentsOf(*next, "file"), "unsynced");
  // The next life's disk is no surer than the last one's.
  std::set<std::string> found;
  for (std::uint64_t seed = 0; seed < 40; ++seed) found.insert(contentsOf(*next->powerCut(seed), "file"));
  EXPECT_THAT(found, Contains("[none]"));
  EXPECT_THAT(found, Contains(""));
}

TEST(FaultPlanTest, oneSeedGivesOneDisk) {
  SimPosix posix;
  for (int i = 0; i < 20; ++i) put(posix, "file" + std::to_string(i), std::string(2000, 'a'), i % 2 == 0);
  const auto tree = [&](std::uint64_t seed) {
    const std::unique_ptr<SimPosix> after = posix.powerCut(seed);
    std::string all;
    const SysResult<std::vector<std::string>> names = after->list(after->root());
    for (const std::string& name : *names) all += name + "=" + contentsOf(*after, name) + ";";
    return all;
  };
  EXPECT_EQ(tree(7), tree(7));
  EXPECT_NE(tree(7), tree(8));
}

TEST(FaultPlanTest, nothingOutsideTheTreeExists) {
  SimPosix posix;
  EXPECT_EQ(posix.open("/etc/passwd", {.read = true}).error(), ENOENT);
  EXPECT_EQ(posix.open(posix.root() + "/../" + "x", {.write = true, .create = true}).error(), ENOENT);
  EXPECT_EQ(posix.unlink("/etc/hostname").error(), ENOENT);
  EXPECT_EQ(posix.mkdir("/etc/quillmark-test", 0700).error(), EACCES);
}

}  // namespace
}  // namespace quillmark::sim
