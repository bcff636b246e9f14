// The history under real threads: who may call what at once, with the thread sanitizer looking on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "ChainInvariants.h"
#include "HistoryMachine.h"
#include "history/SnapshotHistoryManager.h"
#include "journal/AuditTrail.h"
#include "platform/Files.h"
#include "platform/linux/PropertyList.h"
#include "platform/linux/Random.h"
#include "platform/sim/SimDirectoryReader.h"
#include "platform/sim/SimDisks.h"
#include "platform/sim/SimPowerSources.h"
#include "platform/sim/SimProcesses.h"
#include "platform/sim/SimSnapshotCalls.h"
#include "snapshots/APFSManager.h"
#include "snapshots/MountPinRegistry.h"
#include "snapshots/VolumeService.h"
#include "tests/snapshots/SimDiskutil.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;

class NoTrail final : public AuditTrail {
 public:
  std::optional<Error> append(const HelperEvent&) override { return std::nullopt; }
};

class NoPlatformLog final : public PlatformLog {
 public:
  void log(PlatformLogType, std::string_view, std::string_view, std::string_view) override {}
};

class HistoryThreads : public ::testing::Test {
 protected:
  HistoryThreads() {
    for (int i = 0; i < 2; ++i) {
      Uuid uuid = *Uuid::parse("00112233-4455-6677-8899-aabbccddeeff");
      uuid.bytes[0] = static_cast<std::uint8_t>(i);
      uuids.push_back(uuid);
      const std::string number = std::to_string(i + 1);
      volumes.add(sim::makeSimVolume(uuid, "Data" + number, "/Volumes/Data" + number, "disk" + number + "s1"));
    }
    for (const std::string& directory : {paths.userMountRoot, paths.privateMountRoot}) {
      createDirectories(machine.posix, directory, 0755);
    }
    processes.script(paths.diskutil, [this](const ProcessRequest& request) {
      return sim::SimProgram{.output = snapshotsAsDiskutilListsThem(volumes, propertyLists, request.arguments.back())};
    });
  }

  ~HistoryThreads() override { machine.dispatch.shutdown(); }  // work under way uses what stands below

  // Over a database of this name.
  std::shared_ptr<SnapshotHistoryManager> makeHistory(const std::string& database = "state") {
    HostPaths own = paths;
    own.stateDirectory = machine.root + "/" + database;
    auto history = SnapshotHistoryManager::make({.dispatch = machine.dispatch,
                                                 .random = random,
                                                 .posix = machine.posix,
                                                 .calls = calls,
                                                 .disks = disks,
                                                 .directories = directories,
                                                 .power = power,
                                                 .platformLog = platformLog,
                                                 .log = log,
                                                 .paths = own,
                                                 .apfs = apfs,
                                                 .volumes = inventory,
                                                 .mountPins = pins,
                                                 .audit = trail});
    history->install({.progressReporter = [this](const ActiveIndexProgress&) { ++pushes; }});
    return history;
  }
  SnapshotRecord add(const Uuid& uuid, int number) {
    volumes.change(uuid, [&](sim::SimVolume& volume) { volume.tree.write("/f" + std::to_string(number % 5), number); });
    const std::string name = std::string(SnapshotNameInfo::prefix) + "manual." + std::to_string(number);
    const Xid xid = *volumes.addSnapshot(uuid, name, machine.clock.now());
    return {.name = name, .xid = xid, .createdAt = machine.clock.now()};
  }
  // Looks until it holds, for a minute at most.
  bool await(const std::function<bool()>& holds) {
    for (int i = 0; i < 6000 && !holds(); ++i) sleepFor(machine.dispatch, 10ms);
    return holds();
  }

  PlainHistoryMachine machine;
  std::vector<Uuid> uuids;
  sim::SimVolumes volumes;
  os::LinuxRandom random;
  sim::SimSnapshotCalls calls{volumes, machine.clock};
  sim::SimDisks disks{volumes};
  sim::SimDirectoryReader directories{volumes};
  sim::SimPowerSources power;
  sim::SimProcesses processes{machine.dispatch};
  os::LinuxPropertyLists propertyLists;
  NoPlatformLog platformLog;
  HistoryLog log{machine.dispatch};
  NoTrail trail;
  const HostPaths paths = sim::hostPathsUnder(machine.root);
  MountPinRegistry pins{machine.dispatch, random};
  SnapshotIdentity identity{machine.dispatch, processes,   propertyLists, machine.posix,
                            random,           platformLog, paths,         SnapshotIdentity::FileIds::areXids};
  SnapshotServices managed{calls, disks, machine.posix, platformLog, paths, identity, {}};
  APFSManager apfs{managed, "history"};
  VolumeService inventory{machine.dispatch, disks, calls, processes, propertyLists, paths};
  std::atomic<int> pushes{0};
};

// Goal:   creators, deleters, rebuilders and askers of two volumes at once neither race nor deadlock, and what stays on
//         disk is what is indexed in the end.
TEST_F(HistoryThreads, AllCallersAtOnceLeaveASoundHistory) {
  const auto history = makeHistory();
  history->startBackgroundWork();
  Group callers(machine.dispatch);
  const auto spawn = [&](std::function<void()> work) {
    callers.enter();
    machine.dispatch.throwAwayThread("caller", [&callers, work = std::move(work)] {
      work();
      callers.leave();
    });
  };
  for (const Uuid& uuid : uuids) {
    spawn([&, uuid] {
      const VolumeInfo volume = apfs.resolveVolume(uuid.lower());
      for (int i = 0; i < 12; ++i) {
        const SnapshotRecord record = add(uuid, i);
        history->snapshotCreated(volume, record, i % 3 == 0 ? Forced::yes : Forced::no);
        // One that is being scanned can't be removed, and stays.
        if (i % 4 == 1 && volumes.removeSnapshot(uuid, record.name)) history->snapshotsDeleted(volume, {record.xid});
      }
    });
  }
  spawn([&] {
    for (int i = 0; i < 3; ++i) {
      history->reindexAllVolumes();
      sleepFor(machine.dispatch, 20ms);
    }
  });
  spawn([&] {
    for (int i = 0; i < 200; ++i) {
      history->reconcile(VolumeUuid(uuids[0].lower()));
      (void)history->health();
      (void)history->activeIndexProgress();
      (void)history->indexedXIDs(VolumeUuid(uuids[1].lower()));
      sleepFor(machine.dispatch, 1ms);
    }
  });
  callers.wait();
  for (const Uuid& uuid : uuids) {
    const VolumeInfo volume = apfs.resolveVolume(uuid.lower());
    history->reindexVolume(volume);
    std::set<Xid> onDisk;
    for (const sim::SimSnapshot& snapshot : volumes.snapshots(uuid)) onDisk.insert(snapshot.xid);
    EXPECT_TRUE(await([&] { return history->indexedXIDs(volume.key()) == onDisk; }));
  }
  EXPECT_EQ(brokenInvariant(history->store(), machine.dispatch), "");
  EXPECT_GT(pushes, 0);
  history->stopBackgroundWork();
  EXPECT_TRUE(volumes.mounts().empty());
}

TEST_F(HistoryThreads, AHelperMayLeaveInTheMidstOfAnything) {
  for (int round = 0; round < 6; ++round) {
    // What the one before began may still be at its database.
    const auto history = makeHistory("state" + std::to_string(round));
    history->startBackgroundWork();
    for (const Uuid& uuid : uuids) {
      const VolumeInfo volume = apfs.resolveVolume(uuid.lower());
      for (int i = 0; i < 3; ++i) history->snapshotCreated(volume, add(uuid, round * 10 + i), Forced::no);
    }
    sleepFor(machine.dispatch, std::chrono::milliseconds(round * 3));
    history->stopBackgroundWork();
    EXPECT_TRUE(volumes.mounts().empty());
  }
}

}  // namespace
}  // namespace quillmark
