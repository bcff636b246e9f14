// Who counts as having a file system mounted.
#include <gtest/gtest.h>

#include "platform/linux/LeaseWatch.h"

namespace quillmark {
namespace {

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

}  // namespace
}  // namespace quillmark
