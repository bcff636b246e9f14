// Who counts as having a file system mounted, and when a lease on one ends.
#include <gtest/gtest.h>

#include "platform/linux/LeaseWatch.h"
#include "platform/sim/SimDisks.h"
#include "platform/sim/Simulation.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;

TEST(MountLease, MountsBelowThePrivateRootAreNobodys) {
  const std::string root = "1 1 8:1 / / rw - ext4 /dev/sda1 rw\n";
  const std::string ours =
      "9 1 0:40 /.quillmark/s /run/q/mounts/.index-a ro - btrfs /dev/sdb rw,subvolid=300,subvol=/s\n";
  const struct {
    std::string lines;
    bool others;
  } cases[] = {
      {"", false},
      {ours, false},
      {"3 1 0:40 /data /data rw - btrfs /dev/sdb rw,subvolid=256,subvol=/data\n" + ours, true},
      // A folder of it, a mount under another, a read-only one: people have it mounted all the same.
      {"3 1 0:40 /data/x /mnt rw - btrfs /dev/sdb rw,subvolid=256,subvol=/data\n", true},
      {ours + "4 1 0:40 /s /Volumes/a@snap-1 ro - btrfs /dev/sdb rw,subvolid=300,subvol=/s\n", true},
      // The root itself, and one whose name only begins like it.
      {"4 1 0:40 /s /run/q/mounts rw - btrfs /dev/sdb rw,subvolid=300,subvol=/s\n", true},
      {"4 1 0:40 /s /run/q/mounts-too rw - btrfs /dev/sdb rw,subvolid=300,subvol=/s\n", true},
      // Another file system.
      {"4 1 0:41 /data /data rw - btrfs /dev/sdc rw,subvolid=256,subvol=/data\n", false},
  };
  for (const auto& [lines, others] : cases) {
    EXPECT_EQ(os::hasOtherMounts(os::MountTable::parse(root + lines), {0, 40}, "/run/q/mounts"), others) << lines;
  }
}

class SimulatedLease : public ::testing::Test {
 protected:
  SimulatedLease() { volumes.add(sim::makeSimVolume(uuid)); }
  std::unique_ptr<MountLease> lease() {
    return disks.lease(life.dispatch(), queue, "/Volumes/Data", "/private", [this] { ++revocations; });
  }
  void after(FunctionRef<void()> change) {
    ASSERT_TRUE(simulation.run(life, change));
    simulation.runFor(1s);
  }

  const Uuid uuid = *Uuid::parse("00112233-4455-6677-8899-aabbccddeeff");
  sim::Simulation simulation;
  sim::Life& life = simulation.startLife("helper");
  std::shared_ptr<Queue> queue = life.dispatch().makeQueue({.label = "leases"});
  sim::SimVolumes volumes;
  sim::SimDisks disks{volumes};
  int revocations = 0;
};

TEST_F(SimulatedLease, EndsOnceWhenTheLastMountOfOthersGoes) {
  ASSERT_TRUE(volumes.addSnapshot(uuid, "a", {}) && volumes.addSnapshot(uuid, "b", {}));
  ASSERT_TRUE(volumes.mount(uuid, "/private/a", "a", 0) && volumes.mount(uuid, "/Volumes/b", "b", 0));
  const auto held = lease();
  after([&] { volumes.takeButMounts(uuid); });
  EXPECT_EQ(revocations, 0) << "a snapshot is mounted for people";
  after([&] { ASSERT_TRUE(volumes.unmount("/Volumes/b", false)); });
  EXPECT_EQ(revocations, 1);
  after([&] { ASSERT_TRUE(volumes.unmount("/private/a", false)); });
  EXPECT_EQ(revocations, 1);
}

TEST_F(SimulatedLease, ThatIsDroppedTellsNothing) {
  auto held = lease();
  after([&] {
    volumes.take(uuid);
    held.reset();
  });
  EXPECT_EQ(revocations, 0);
}

TEST_F(SimulatedLease, IsGivenOnlyOnWhatIsMounted) {
  volumes.take(uuid);
  EXPECT_EQ(lease(), nullptr);
}

}  // namespace
}  // namespace quillmark
