#include "SnapshotMachine.h"
#include "snapshots/VolumeService.h"

namespace quillmark {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The inventory over a machine whose diskutil knows one container.
struct Inventory {
  Inventory() {
    machine.processes.script(machine.paths.diskutil, [this](const ProcessRequest& request) {
      runs.push_back(request.arguments.front());
      if (request.arguments.front() == "apfs") return sim::SimProgram{.output = list};
      return sim::SimProgram{.output = info};
    });
  }
  [[nodiscard]] std::vector<APFSVolume> volumes(bool detailed = false, bool refresh = false) {
    std::vector<APFSVolume> found;
    machine.run([&] { found = service.listVolumes(detailed, refresh); });
    return found;
  }
  void change(FunctionRef<void(sim::SimVolume&)> work) { machine.volumes.change(machine.uuid, work); }

  SnapshotMachine machine;
  VolumeService service{machine.life.dispatch(), machine.disks,         machine.calls,
                        machine.processes,       machine.propertyLists, machine.paths};
  std::vector<std::string> runs;
  std::string list = R"(<plist><dict><key>Containers</key><array><dict>
    <key>ContainerReference</key><string>disk1</string><key>Volumes</key><array>
    <dict><key>DeviceIdentifier</key><string>disk1s1</string><key>CapacityInUse</key><integer>700</integer></dict>
    <dict><key>DeviceIdentifier</key><string>disk1s2</string><key>CapacityInUse</key><integer>50</integer></dict>
    </array></dict></array></dict></plist>)";
  std::string info = "<plist><dict><key>BusProtocol</key><string>Loop</string></dict></plist>";
};

TEST(VolumeService, listsTheLightFormWithoutStartingAProcess) {
  Inventory inventory;
  const auto volumes = inventory.volumes();
  ASSERT_EQ(volumes.size(), 1U);
  const APFSVolume& volume = volumes[0];
  EXPECT_EQ(volume.id, inventory.machine.uuid.upper());
  EXPECT_EQ(volume.totalBytes, 25'000'000ULL * 4096);
  EXPECT_EQ(volume.availableBytes, 20'000'000ULL * 4096);
  EXPECT_EQ(volume.usedBytes, 5'000'000ULL * 4096);
  EXPECT_EQ(volume.containerVolumeCount, 1);
  EXPECT_FALSE(volume.ownUsedBytes);
  EXPECT_THAT(inventory.runs, IsEmpty());
}

TEST(VolumeService, joinsTheDetailedFormWithItsContainer) {
  Inventory inventory;
  const auto volumes = inventory.volumes(true);
  ASSERT_EQ(volumes.size(), 1U);
  EXPECT_EQ(volumes[0].connectionBus, "Loop");
  EXPECT_EQ(volumes[0].ownUsedBytes, 700U);
  EXPECT_EQ(volumes[0].otherVolumesUsedBytes, 50U);
  EXPECT_EQ(volumes[0].containerVolumeCount, 2);
  EXPECT_THAT(inventory.runs, ElementsAre("apfs", "info"));
}

TEST(VolumeService, asksDiskutilOnceAMinuteWhileNothingMoves) {
  Inventory inventory;
  (void)inventory.volumes(true);
  inventory.machine.simulation.runFor(std::chrono::seconds(59));
  (void)inventory.volumes(true);
  EXPECT_EQ(inventory.runs.size(), 2U);
  inventory.machine.simulation.runFor(std::chrono::seconds(1));
  (void)inventory.volumes(true);
  EXPECT_EQ(inventory.runs.size(), 4U) << "facts exactly 60 seconds old are refreshed";
  (void)inventory.volumes(true, true);
  EXPECT_EQ(inventory.runs.size(), 6U);
  inventory.change([](sim::SimVolume& volume) { volume.description.volumePath = "/elsewhere"; });
  (void)inventory.volumes(true);
  EXPECT_EQ(inventory.runs.size(), 8U) << "a volume that moved outdates them at once";
}

TEST(VolumeService, keepsEmptyValuesWhenDiskutilFails) {
  Inventory inventory;
  inventory.list = inventory.info = "rubbish";
  const auto volumes = inventory.volumes(true);
  ASSERT_EQ(volumes.size(), 1U);
  EXPECT_FALSE(volumes[0].ownUsedBytes);
  EXPECT_EQ(volumes[0].connectionBus, "NVMe") << "from the registry";
  EXPECT_EQ(volumes[0].containerVolumeCount, 1);
  (void)inventory.volumes(true);
  EXPECT_EQ(inventory.runs.size(), 2U) << "emptiness is remembered too";
}

TEST(VolumeService, leavesDiskImagesOutAsEachFormCanTell) {
  Inventory inventory;
  inventory.change([](sim::SimVolume& volume) { volume.description.deviceProtocol = "Virtual Interface"; });
  EXPECT_THAT(inventory.volumes(), IsEmpty());
  EXPECT_EQ(inventory.volumes(true).size(), 1U);
  inventory.change([](sim::SimVolume& volume) { volume.description.deviceProtocol = "Disk Image"; });
  EXPECT_THAT(inventory.volumes(), IsEmpty());
}

TEST(VolumeService, sortsByNameAsPeopleDo) {
  Inventory inventory;
  const char* names[] = {"beta", "Alpha", "Ölpest", "zeta", "alpha2"};
  unsigned char last = 1;
  for (const char* name : names) {
    Uuid uuid;
    uuid.bytes[15] = last++;
    inventory.machine.volumes.add(
        sim::makeSimVolume(uuid, name, std::string("/Volumes/") + name, "disk2s" + std::to_string(last)));
  }
  std::vector<std::string> sorted;
  for (const APFSVolume& volume : inventory.volumes()) sorted.push_back(volume.name);
  EXPECT_THAT(sorted, ElementsAre("Alpha", "alpha2", "beta", "Data", "Ölpest", "zeta"));
}

}  // namespace
}  // namespace quillmark
