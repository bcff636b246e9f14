#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "TemporaryDirectory.h"
#include "platform/linux/DeviceFacts.h"
#include "platform/linux/Disks.h"

namespace quillmark::os {
namespace {

namespace fs = std::filesystem;

const Uuid fsid = *Uuid::parse("0f0e0d0c-0b0a-4908-8706-050403020100");

// A sysfs of our own below a temporary directory.
class FakeSysfs final {
 public:
  [[nodiscard]] const std::string& root() const { return directory_.path(); }
  void put(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(root() + "/" + path).parent_path());
    std::ofstream(root() + "/" + path) << text << '\n';
  }
  void device(const std::string& path) { fs::create_directories(root() + "/devices/" + path); }
  void member(const std::string& path) {
    device(path);
    const std::string members = root() + "/fs/btrfs/" + fsid.lower() + "/devices";
    fs::create_directories(members);
    fs::create_directory_symlink(root() + "/devices/" + path, members + "/" + fs::path(path).filename().string());
  }
  void slave(const std::string& above, const std::string& below) {
    device(below);
    fs::create_directories(root() + "/devices/" + above + "/slaves");
    fs::create_directory_symlink(root() + "/devices/" + below,
                                 root() + "/devices/" + above + "/slaves/" + fs::path(below).filename().string());
  }

 private:
  const TemporaryDirectory directory_;
};

TEST(DeviceFacts, TellTheBusFromTheDevicesPath) {
  struct Case {
    std::string path;
    std::optional<std::string> protocol;
    std::optional<bool> isInternal;
    const char* lastClass;
  };
  const std::vector<Case> cases = {
      {"pci0000:00/0000:00:1d.0/nvme/nvme0/nvme0n1", "NVMe", true, "IOPCIDevice"},
      {"pci0000:00/0000:00:17.0/ata3/host2/target2:0:0/2:0:0:0/block/sda", "SATA", true, "IOPCIDevice"},
      {"pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host6/target6:0:0/6:0:0:0/block/sdb", "USB", false, "IOPCIDevice"},
      {"pci0000:00/0000:00:02.0/virtio1/block/vda", "Virtio", true, "IOMedia"},
      {"virtual/block/loop0", "Loop", false, "IOMedia"},
      {"platform/fe320000.mmc/mmc_host/mmc1/mmc1:0001/block/mmcblk1", "MMC", true, "IOMedia"},
      {"pci0000:00/0000:00:10.0/host0/target0:0:0/0:0:0:0/block/sdc", "SCSI", true, "IOMedia"},
      {"virtual/block/zram0", std::nullopt, std::nullopt, "IOMedia"},
  };
  for (const Case& test : cases) {
    FakeSysfs sysfs;
    sysfs.member(test.path);
    const auto facts = deviceFacts(fsid, sysfs.root());
    ASSERT_TRUE(facts);
    EXPECT_EQ(facts->protocol, test.protocol) << test.path;
    EXPECT_EQ(facts->isInternal, test.isInternal) << test.path;
    EXPECT_EQ(facts->classes.back(), test.lastClass) << test.path;
    EXPECT_EQ(facts->model, std::nullopt);
  }
  EXPECT_FALSE(deviceFacts(fsid, "/nowhere"));
}

TEST(DeviceFacts, LookThroughPartitionsMappersAndCardsAndCountEveryMembersEncryption) {
  FakeSysfs sysfs;
  const std::string disk = "pci0000:00/0000:00:17.0/ata3/host2/block/sda", mapper = "virtual/block/dm-0";
  sysfs.member(mapper);
  sysfs.put("devices/" + mapper + "/dm/uuid", "CRYPT-LUKS2-0123-home");
  sysfs.put("devices/" + disk + "/sda2/partition", "2");
  sysfs.put("devices/" + disk + "/device/model", "Fine Disk   ");
  sysfs.slave(mapper, disk + "/sda2");
  const auto facts = deviceFacts(fsid, sysfs.root());
  EXPECT_EQ(facts->protocol, "SATA");
  EXPECT_EQ(facts->model, "Fine Disk");
  EXPECT_EQ(facts->isEncrypted, true);
  sysfs.member(disk + "/sda3");
  EXPECT_EQ(deviceFacts(fsid, sysfs.root())->isEncrypted, false);

  FakeSysfs card;
  card.member("pci0000:00/mmc_host/mmc0/mmc0:1/block/mmcblk0");
  card.put("devices/pci0000:00/mmc_host/mmc0/mmc0:1/block/mmcblk0/device/type", "SD");
  EXPECT_EQ(deviceFacts(fsid, card.root())->protocol, "SD Card");
  EXPECT_EQ(deviceFacts(fsid, card.root())->isInternal, false);

  FakeSysfs plugged;
  plugged.member("pci0000:00/0000:00:07.0/0000:04:00.0/nvme/nvme1/nvme1n1");
  plugged.put("devices/pci0000:00/0000:00:07.0/removable", "removable");
  EXPECT_EQ(deviceFacts(fsid, plugged.root())->protocol, "Thunderbolt");
  EXPECT_EQ(deviceFacts(fsid, plugged.root())->isInternal, false);
}

TEST(VolumeName, IsTheLabelOfTheWholeAndTheOwnNameOfAPart) {
  struct Case {
    const char* root;
    const char* mountPoint;
    std::uint64_t id;
    const char* label;
    const char* name;
  };
  for (const Case& test :
       {Case{"/", "/top", 5, "Work", "Work"}, Case{"/", "/top", 5, "", "System"}, Case{"/@", "/", 256, "Work", "Work"},
        Case{"/@", "/", 256, "", "System"}, Case{"/@home", "/home", 257, "Work", "home"},
        Case{"/a/b", "/b", 258, "", "b"}, Case{"/@", "/mnt", 256, "Work", "@"}}) {
    MountEntry entry;
    entry.root = test.root;
    entry.subvolume = test.root;
    entry.mountPoint = test.mountPoint;
    entry.subvolumeId = test.id;
    EXPECT_EQ(volumeName(entry, test.label), test.name) << test.root << " at " << test.mountPoint;
  }
}

}  // namespace
}  // namespace quillmark::os
