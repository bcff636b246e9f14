// SnapshotMachine: the snapshot layer on one simulated machine with one volume and a diskutil that tells the truth.
//
//   SnapshotMachine machine;
//   machine.run([&] { machine.apfs.createSnapshot(machine.volume(), "", Kind::manual(), machine.now()); });
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "SimDiskutil.h"
#include "platform/Files.h"
#include "platform/sim/Simulation.h"
#include "snapshots/APFSManager.h"
#include "tests/base/Failures.h"

namespace quillmark {

class SnapshotMachine {
 public:
  explicit SnapshotMachine(SnapshotIdentity::FileIds kernelFileIds = SnapshotIdentity::FileIds::areXids)
      : fileIds(kernelFileIds) {
    volumes.add(sim::makeSimVolume(uuid));
    for (const std::string& directory : {paths.userMountRoot, paths.privateMountRoot}) {
      createDirectories(posix, directory, 0755);
    }
    processes.script(paths.diskutil, [this](const ProcessRequest& request) { return diskutil(request); });
  }

  // Runs the body as the helper would, on a fiber.
  void run(FunctionRef<void()> body) { ASSERT_TRUE(simulation.run(life, body)); }

  [[nodiscard]] VolumeInfo volume() { return apfs.resolveVolume(uuid.lower()); }
  [[nodiscard]] Date now() { return life.clock().now(); }
  [[nodiscard]] std::vector<std::string> names() {
    std::vector<std::string> listed;
    for (const SnapshotRecord& record : apfs.listSnapshots(volume())) listed.push_back(record.name);
    return listed;
  }
  Xid add(const std::string& name) { return *volumes.addSnapshot(uuid, name, now()); }
  void remove(const std::string& name) { ASSERT_TRUE(volumes.removeSnapshot(uuid, name)); }
  [[nodiscard]] std::size_t diskutilRuns() const { return processes.launches().size(); }

  const SnapshotIdentity::FileIds fileIds;
  const Uuid uuid = *Uuid::parse("00112233-4455-6677-8899-aabbccddeeff");
  sim::Simulation simulation{{.seed = 11}};
  sim::Life& life = simulation.startLife("helper");
  sim::SimVolumes volumes;
  sim::SimPlatform sim{life, volumes};
  sim::SimPosix& posix = sim.files();
  sim::SimSnapshotCalls& calls = sim.snapshots();
  sim::SimDisks& disks = sim.disks();
  sim::SimProcesses& processes = sim.processes();
  sim::SimPlatformLog& log = sim.log();
  const HostPaths& paths = sim.paths();
  PropertyLists& propertyLists = sim.platform().propertyLists;
  SnapshotIdentity identity{life.dispatch(), processes, propertyLists, posix, life.random(), log, paths, fileIds};
  SnapshotServices services{calls, disks, posix, log, paths, identity, {}};
  APFSManager apfs{services, "apfs"};
  // Runs each time before diskutil looks.
  std::function<void()> beforeDiskutil;
  // What diskutil does instead of telling the truth, when set.
  std::function<sim::SimProgram(const std::string& truth)> diskutilScript;

 private:
  sim::SimProgram diskutil(const ProcessRequest& request) {
    EXPECT_THAT(request.arguments, ::testing::ElementsAre("apfs", "listSnapshots", "-plist", "disk1s1"));
    if (beforeDiskutil) beforeDiskutil();
    const std::string truth = snapshotsAsDiskutilListsThem(volumes, propertyLists, request.arguments.back());
    return diskutilScript ? diskutilScript(truth) : sim::SimProgram{.output = truth};
  }
};

}  // namespace quillmark
