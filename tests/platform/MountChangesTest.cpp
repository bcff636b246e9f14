#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/MountChanges.h"

namespace quillmark::os {
namespace {

using enum DiskEvent::Kind;

const std::string root = "20 1 254:0 / / rw - ext4 /dev/vda rw\n";
const std::string data = "30 20 0:40 /data /data rw - btrfs /dev/sda rw,subvolid=256,subvol=/data\n";

std::string told(const std::vector<MountChanges::Change>& changes) {
  std::string text;
  for (const auto& change : changes) {
    text += change.kind == appeared          ? "+"
            : change.kind == disappeared     ? "-"
            : change.kind == servedElsewhere ? "@"
                                             : "~";
    text += change.key.second + " ";
  }
  return text;
}

TEST(MountChanges, TellOfDisksOnceAndOfTheRestOnlyWhatCameFromElsewhere) {
  struct Case {
    const char* what;
    std::string before, after, told;
  };
  const std::vector<Case> cases = {
      {"nothing", data, data, ""},
      {"a volume comes", "", data, "+/data "},
      {"a volume goes", data, "", "-/data "},
      {"a stick of another kind", "", "31 20 8:17 / /stick rw - vfat /dev/sdb1 rw\n", "+/stick "},
      {"by FUSE over a block device", "", "31 20 8:17 / /stick rw - fuseblk /dev/sdb1 rw\n", "+/stick "},
      {"read-only from now on", data, "30 20 0:40 /data /data ro - btrfs /dev/sda rw,subvolid=256,subvol=/data\n",
       "~/data "},
      {"read-only after an error", data, "30 20 0:40 /data /data rw - btrfs /dev/sda ro,subvolid=256,subvol=/data\n",
       "~/data "},
      {"unmounted and mounted between two looks", data,
       "31 20 0:40 /data /data rw - btrfs /dev/sda rw,subvolid=256,subvol=/data\n", "~/data "},
      {"another disk at its place", data, "31 20 0:41 /data /data rw - btrfs /dev/sdb rw,subvolid=256,subvol=/data\n",
       "-/data +/data "},
      {"a bind of a folder of a disk", "", "31 20 254:0 /srv /bind rw - ext4 /dev/vda rw\n", ""},
      {"a bind of a folder of a volume", data,
       data + "31 20 0:40 /data/x /x rw - btrfs /dev/sda rw,subvolid=256,subvol=/data\n", ""},
      {"an overlay", "", "31 20 0:50 / /merged rw - overlay overlay rw,lowerdir=/a\n", ""},
      {"a namespace", "", "31 20 0:4 net:[4026532281] /run/netns/a rw - nsfs nsfs rw\n", ""},
      {"memory", "", "31 20 0:51 / /run/user/1000 rw - tmpfs tmpfs rw\n", ""},
      {"a network's", "", "31 20 0:52 / /nfs rw - nfs4 host:/ rw\n", "@/nfs "},
      {"by FUSE over nothing", data, data + "31 30 0:52 / /data/ssh rw - fuse.sshfs host: rw\n", "@/data/ssh "},
      {"the kernel's own", "", "31 20 0:52 / /dev/pts rw - devpts devpts rw\n", ""},
      {"a volume is covered", data, data + "31 30 0:51 / /data rw - tmpfs tmpfs rw\n", "-/data "},
      {"a volume is deleted while mounted", data,
       "30 20 0:40 /data//deleted /data rw - btrfs /dev/sda rw,subvolid=256\n", "-/data "},
  };
  for (const Case& test : cases) {
    MountChanges changes;
    EXPECT_EQ(told(changes.update(MountTable::parse(root + test.before))), test.before.empty() ? "+/ " : "+/data +/ ");
    EXPECT_EQ(told(changes.update(MountTable::parse(root + test.after))), test.told) << test.what;
    EXPECT_EQ(told(changes.update(MountTable::parse(root + test.after))), "") << "told once: " << test.what;
  }
}

}  // namespace
}  // namespace quillmark::os
