// The road of real snapshots into the history, and how the history lets go of a file system.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <map>

#include "BtrfsMachine.h"
#include "base/HelperLog.h"
#include "history/SnapshotHistoryManager.h"
#include "journal/AuditTrail.h"
#include "platform/contract/SnapshotCallsSuite.h"
#include "platform/linux/DirectoryReader.h"
#include "platform/linux/PlatformLog.h"
#include "platform/linux/PowerSources.h"
#include "platform/linux/Processes.h"
#include "platform/linux/PropertyList.h"
#include "platform/linux/Random.h"
#include "snapshots/APFSManager.h"
#include "snapshots/MountPinRegistry.h"
#include "snapshots/VolumeService.h"

namespace quillmark::os {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

// Before any test, and so before any thread, is the time to enter the namespace.
class Sandbox final : public ::testing::Environment {
 public:
  void SetUp() override {
    const std::string missing = whatIsMissing();
    if (missing.empty()) return;
    const char* ci = std::getenv("CI");
    if (ci && std::string_view(ci) == "true") FAIL() << "These tests need btrfs on a loop device: " << missing;
    GTEST_SKIP() << "No btrfs here: " << missing;
  }
};
const auto* const sandbox = ::testing::AddGlobalTestEnvironment(new Sandbox);

class Lines final : public HelperLog {
 public:
  explicit Lines(Threads& threads) : lines_(threads) {}
  std::vector<std::string> all() {
    return lines_.with([](const auto& lines) { return lines; });
  }

 private:
  void emit(LogLevel, std::string_view message, CodeLocation) override {
    lines_.with([&](auto& lines) { lines.emplace_back(message); });
  }
  Guarded<std::vector<std::string>> lines_;
};

class NoTrail final : public AuditTrail {
 public:
  std::optional<Error> append(const HelperEvent&) override { return std::nullopt; }
};

// The real reader, of a disk so slow that every directory takes its time.
class SlowReader final : public DirectoryReader {
 public:
  SysResult<std::unique_ptr<OpenTree>> openTree(const std::string& root) override {
    auto tree = reader_.openTree(root);
    if (!tree || perDirectory.load() == 0ms) return tree;
    return std::unique_ptr<OpenTree>(std::make_unique<Tree>(*this, std::move(*tree)));
  }
  unsigned processorCount() override { return reader_.processorCount(); }
  std::unique_ptr<LowPriority> lowerPriority() override { return reader_.lowerPriority(); }

  explicit SlowReader(Threads& threads) : threads_(threads) {}
  std::atomic<std::chrono::milliseconds> perDirectory{0ms};
  std::atomic<int> directoriesRead{0};

 private:
  class Tree final : public OpenTree {
   public:
    Tree(SlowReader& reader, std::unique_ptr<OpenTree> tree) : reader_(reader), tree_(std::move(tree)) {}
    const FileFacts& root() const override { return tree_->root(); }
    const std::string& ownPlace() const override { return tree_->ownPlace(); }
    SysResult<std::unique_ptr<WholeTree>> openWhole() override { return Errno{ENOTSUP}; }
    SysResult<std::unique_ptr<OpenDirectory>> open(const std::string& path) override {
      ++reader_.directoriesRead;
      auto directory = tree_->open(path);
      sleepFor(reader_.threads_, reader_.perDirectory.load());
      return directory;
    }
    SysResult<std::unique_ptr<OpenDirectory>> opendir(const std::string& path) override { return tree_->opendir(path); }
    SysResult<bool> isDataless(const std::string& path) override { return tree_->isDataless(path); }
    SysResult<std::unique_ptr<FileLayout>> rootLayout() override { return tree_->rootLayout(); }

   private:
    SlowReader& reader_;
    const std::unique_ptr<OpenTree> tree_;
  };
  Threads& threads_;
  LinuxDirectoryReader reader_;
};

HostPaths pathsUnder(const std::string& root) {
  HostPaths paths;
  paths.stateDirectory = root + "/state";
  paths.userMountRoot = root + "/Volumes";
  paths.privateMountRoot = root + "/mounts";
  paths.diskutil = DISKUTIL_PROGRAM;
  return paths;
}

class HistoryOnBtrfs : public ::testing::Test {
 protected:
  HistoryOnBtrfs() {
    machine.shell("mkdir -p " + paths.userMountRoot + " " + paths.privateMountRoot);
    history = SnapshotHistoryManager::make({.dispatch = dispatch,
                                            .random = random,
                                            .posix = machine.posix,
                                            .calls = machine.calls,
                                            .disks = machine.disks,
                                            .directories = directories,
                                            .power = power,
                                            .platformLog = platformLog,
                                            .log = log,
                                            .paths = paths,
                                            .apfs = apfs,
                                            .volumes = inventory,
                                            .mountPins = pins,
                                            .audit = trail});
  }
  ~HistoryOnBtrfs() override {
    history->stopBackgroundWork();
    history.reset();
    machine.dispatch.shutdown();  // work under way uses what stands below
  }

  // A snapshot of the volume that the history is told of.
  Xid take(const std::string& name) {
    EXPECT_TRUE(machine.calls.fs_snapshot_create(*machine.open(machine.volume), name));
    return tell(name);
  }
  Xid tell(const std::string& name) {
    for (const SnapshotRecord& record : apfs.listSnapshots(volume())) {
      if (record.name != name) continue;
      static_cast<SnapshotHistory&>(*history).snapshotCreated(volume(), record);
      return record.xid;
    }
    ADD_FAILURE() << "no snapshot " << name;
    return {};
  }
  [[nodiscard]] VolumeInfo volume() { return apfs.resolveVolume(machine.uuidAt(machine.volume).text()); }
  // Looks again and again until it holds; how long that took, or nothing when it was too long.
  std::optional<std::chrono::milliseconds> await(std::chrono::milliseconds atMost, const std::function<bool()>& holds) {
    const MonotonicTime began = machine.clock.monotonic();
    while (!holds()) {
      if (machine.clock.monotonic() - began > atMost) return std::nullopt;
      sleepFor(dispatch, 5ms);
    }
    return std::chrono::duration_cast<std::chrono::milliseconds>(machine.clock.monotonic() - began);
  }
  [[nodiscard]] std::string mounts() { return machine.shell("cat /proc/self/mountinfo"); }
  [[nodiscard]] bool isScanning() { return mounts().find("/mounts/.index-") != std::string::npos; }
  [[nodiscard]] std::map<std::string, std::int64_t> remembered(Xid xid) {
    std::map<std::string, std::int64_t> sizes;
    history->store().reconstruct(key, xid).forEach([&](const SnapshotIndex::EntryView& entry) {
      sizes[std::string(entry.path)] = entry.type == SnapshotIndex::EntryType::file ? entry.size : -1;
    });
    return sizes;
  }

  BtrfsMachine machine;
  Dispatch& dispatch = machine.dispatch;
  const VolumeUuid key = machine.uuidAt(machine.volume);
  const HostPaths paths = pathsUnder(machine.root);
  LinuxRandom random;
  LinuxProcesses processes{dispatch};
  LinuxPropertyLists propertyLists;
  LinuxPlatformLog platformLog{{.journal = "/nowhere", .syslog = "/nowhere"}};
  LinuxPowerSources power;
  SlowReader directories{dispatch};
  Lines log{dispatch};
  NoTrail trail;
  MountPinRegistry pins{dispatch, random};
  SnapshotIdentity identity{dispatch, processes,   propertyLists, machine.posix,
                            random,   platformLog, paths,         SnapshotIdentity::FileIds::areXids};
  SnapshotServices managed{machine.calls, machine.disks, machine.posix, platformLog, paths, identity, {}};
  APFSManager apfs{managed, "history"};
  VolumeService inventory{dispatch, machine.disks, machine.calls, processes, propertyLists, paths};
  std::shared_ptr<SnapshotHistoryManager> history;
};

TEST_F(HistoryOnBtrfs, SnapshotsBecomeHistoryAndNothingStaysMounted) {
  machine.shell("cd " + machine.volume + "; mkdir -p home/me; echo hello > home/me/letter; echo 12345 > home/number");
  const Xid first = take("com.harrowfern.Quillmark.manual.one");
  machine.shell("cd " + machine.volume + "; echo more >> home/me/letter; mv home/number home/me/");
  const Xid second = take("com.harrowfern.Quillmark.manual.two");
  ASSERT_TRUE(await(20s, [&] { return history->store().isReady(key, second); })) << ::testing::PrintToString(log.all());
  EXPECT_THAT(remembered(first),
              ::testing::UnorderedElementsAre(::testing::Pair("/", -1), ::testing::Pair("/home", -1),
                                              ::testing::Pair("/home/me", -1), ::testing::Pair("/home/me/letter", 6),
                                              ::testing::Pair("/home/number", 6)));
  EXPECT_THAT(remembered(second),
              ::testing::UnorderedElementsAre(::testing::Pair("/", -1), ::testing::Pair("/home", -1),
                                              ::testing::Pair("/home/me", -1), ::testing::Pair("/home/me/letter", 11),
                                              ::testing::Pair("/home/me/number", 6)));
  EXPECT_THAT(mounts(), Not(HasSubstr(".index-")));
  EXPECT_THAT(machine.shell("ls -A " + paths.privateMountRoot), IsEmpty());
}

TEST_F(HistoryOnBtrfs, ASnapshotThatPeopleMountedThemselvesIsReadWhereItIs) {
  const std::string name = "com.harrowfern.Quillmark.manual.one", place = machine.root + "/elsewhere";
  machine.shell("echo hello > " + machine.volume + "/letter");
  ASSERT_TRUE(machine.calls.fs_snapshot_create(*machine.open(machine.volume), name));
  machine.mount(place, "ro,subvol=/.quillmark/" + key.text() + "/" + name);
  const Xid xid = tell(name);
  ASSERT_TRUE(await(20s, [&] { return history->store().isReady(key, xid); })) << ::testing::PrintToString(log.all());
  EXPECT_THAT(remembered(xid), ::testing::Contains(::testing::Pair("/letter", 6)));
  EXPECT_THAT(mounts(), HasSubstr(place));
}

// Goal:   who unmounts a volume in the midst of a scan gets his device back within two seconds.
// Method: a scan that would last a minute; umount of all that people have mounted; the file system is gone when the
//         kernel has no superblock of it and the loop device, which frees itself with its last mount, has no image.
TEST_F(HistoryOnBtrfs, AScanLetsGoOfADeviceWithinTwoSecondsOfTheLastUnmount) {
  machine.shell("cd " + machine.volume + "; mkdir -p d{1..400}; for i in d*; do echo x > $i/file; done");
  const std::string fsid =
      machine.shell("btrfs filesystem show " + machine.volume + " | grep -o 'uuid: .*' | cut -c7-");
  const std::string superblock = "/sys/fs/btrfs/" + fsid.substr(0, fsid.find('\n'));
  const std::string backing = "/sys/block/" + machine.device.substr(5) + "/loop/backing_file";
  const auto exists = [](const std::string& path) {
    return ::faccessat(AT_FDCWD, path.c_str(), F_OK, AT_EACCESS) == 0;
  };
  directories.perDirectory = 300ms;
  const Xid xid = take("com.harrowfern.Quillmark.manual.slow");
  ASSERT_TRUE(await(10s, [&] { return isScanning() && directories.directoriesRead > 3; }));

  machine.shell("umount " + machine.top);
  sleepFor(dispatch, 700ms);
  ASSERT_TRUE(isScanning()) << "people have it mounted still";
  machine.shell("umount " + machine.volume);
  const auto took = await(5s, [&] { return !isScanning() && !exists(superblock) && !exists(backing); });
  ASSERT_TRUE(took) << mounts();
  EXPECT_LT(*took, 2s);
  RecordProperty("milliseconds", static_cast<int>(took->count()));
  ASSERT_TRUE(await(2s, [&] { return history->activeIndexProgress().empty(); }));
  EXPECT_LT(directories.directoriesRead, 200);
  const auto pending = history->store().pendingSnapshots(key);
  ASSERT_EQ(pending.size(), 1u);
  EXPECT_EQ(pending[0].xid, xid);
  EXPECT_EQ(history->health(), HelperSubsystemHealth());
}

TEST_F(HistoryOnBtrfs, ALeavingHelperGivesItsMountsBackAtOnce) {
  machine.shell("cd " + machine.volume + "; mkdir -p d{1..400}");
  directories.perDirectory = 200ms;
  const Xid xid = take("com.harrowfern.Quillmark.manual.slow");
  ASSERT_TRUE(await(10s, [&] { return isScanning() && directories.directoriesRead > 3; }));
  const MonotonicTime began = machine.clock.monotonic();
  history->stopBackgroundWork();
  EXPECT_LT(machine.clock.monotonic() - began, 2s);
  EXPECT_FALSE(isScanning());
  EXPECT_FALSE(history->store().isReady(key, xid));
}

}  // namespace
}  // namespace quillmark::os

namespace quillmark::contract {
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(SnapshotCallsSuite);  // the machine's own suites run elsewhere
}  // namespace quillmark::contract
