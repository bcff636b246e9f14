#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/MountTable.h"

namespace quillmark::os {
namespace {

using ::testing::ElementsAre;

constexpr const char* rootLine = "20 1 254:0 / / rw - ext4 /dev/vda rw\n";

std::string btrfsLine(int id, int parent, const std::string& root, const std::string& point,
                      const std::string& subvolume, const std::string& mountOptions = "rw",
                      const std::string& superOptions = "rw", const std::string& number = "256") {
  return std::to_string(id) + " " + std::to_string(parent) + " 0:40 " + root + " " + point + " " + mountOptions +
         ",relatime shared:3 master:1 - btrfs /dev/sda " + superOptions + ",space_cache=v2,subvolid=" + number +
         ",subvol=" + subvolume + "\n";
}

std::vector<std::string> volumePoints(const MountTable& table) {
  std::vector<std::string> points;
  for (const MountEntry* entry : table.volumes()) points.push_back(entry->mountPoint);
  return points;
}

TEST(MountTable, OnlyWholeWritableVisibleSubvolumesAreVolumes) {
  struct Case {
    const char* what;
    std::string text;
    std::vector<std::string> volumes;
  };
  const std::string home = btrfsLine(30, 20, "/home", "/home", "/home");
  const std::vector<Case> cases = {
      {"a subvolume", home, {"/home"}},
      {"the top level", btrfsLine(30, 20, "/", "/top", "/", "rw", "rw", "5"), {"/top"}},
      {"a bind of a folder", btrfsLine(30, 20, "/home/x", "/x", "/home"), {}},
      {"a bind of a whole subvolume after its mount", home + btrfsLine(31, 20, "/home", "/again", "/home"), {"/home"}},
      {"read-only by mount", btrfsLine(30, 20, "/home", "/home", "/home", "ro"), {}},
      {"read-only by superblock", btrfsLine(30, 20, "/home", "/home", "/home", "rw", "ro"), {}},
      {"deleted while mounted", "30 20 0:40 /home//deleted /home rw - btrfs /dev/sda rw,subvolid=256\n", {}},
      {"a snapshot mounted for reading", btrfsLine(30, 20, "/s/1", "/s", "/s/1", "ro,nosuid,nodev"), {}},
      {"another kind", "30 20 8:1 / /home rw - xfs /dev/sdb rw\n", {}},
      {"covered at its place", home + "31 30 0:50 / /home rw - tmpfs tmpfs rw\n", {}},
      {"covered at a parent by FUSE",
       btrfsLine(30, 20, "/d", "/mnt/a/d", "/d") + "31 20 0:51 / /mnt/a rw - fuse.sshfs host:/ rw\n",
       {}},
      {"below a mount that is visible",
       "31 20 0:51 / /mnt rw - tmpfs tmpfs rw\n" + btrfsLine(32, 31, "/d", "/mnt/d", "/d"),
       {"/mnt/d"}},
      {"below a FUSE mount that is visible",
       "31 20 0:51 / /f rw - fuse host rw\n" + btrfsLine(32, 31, "/d", "/f/a/d", "/d"),
       {}},
      {"below an automounter's and a network's, with a disk's own kind between",
       "31 20 0:51 / /n rw - autofs a rw\n32 31 0:52 / /n/m rw - nfs4 h:/ rw\n33 32 0:53 / /n/m/t rw - ext4 /dev/b "
       "rw\n" +
           btrfsLine(34, 33, "/d", "/n/m/t/d", "/d"),
       {}},
      {"a FUSE mount that is covered is in nobody's way",
       "31 20 0:51 / /f rw - fuse host rw\n32 31 0:52 / /f rw - tmpfs t rw\n" + btrfsLine(33, 32, "/d", "/f/d", "/d"),
       {"/f/d"}},
      {"beside a FUSE mount of a like name",
       "31 20 0:51 / /f rw - fuse host rw\n" + btrfsLine(32, 20, "/d", "/ff/d", "/d"),
       {"/ff/d"}},
      {"below a FUSE mount first, then in reach",
       "31 20 0:51 / /f rw - fuse host rw\n" + btrfsLine(32, 31, "/d", "/f/d", "/d") +
           btrfsLine(33, 20, "/d", "/again", "/d"),
       {"/again"}},
      {"the first is covered, the second isn't",
       home + "31 30 0:50 / /home rw - tmpfs tmpfs rw\n" + btrfsLine(32, 20, "/home", "/again", "/home"),
       {"/again"}},
      {"stacked on another volume", home + btrfsLine(31, 30, "/top", "/home", "/top", "rw", "rw", "257"), {"/home"}},
      {"names with blanks, line feeds, backslashes and commas",
       btrfsLine(30, 20, R"(/a\040b\012c\134d,e)", R"(/m\011n)", R"(/a\040b\012c\134d\054e)"),
       {"/m\tn"}},
      {"names that are no UTF-8", btrfsLine(30, 20, "/\xFF", "/\xFE", "/\xFF"), {"/\U0010EFFE"}},
      {"other mount with a comma where ours has none", btrfsLine(30, 20, "/a", "/a", R"(/a\054subvol=/b)"), {}},
  };
  for (const Case& test : cases) {
    EXPECT_EQ(volumePoints(MountTable::parse(rootLine + test.text)), test.volumes) << test.what;
  }
}

TEST(MountTable, APathIsHeldByTheMountThatALookUpEndsIn) {
  const MountTable table = MountTable::parse(std::string(rootLine) +
                                             "30 20 0:50 / /a rw - tmpfs a rw\n"
                                             "31 30 0:51 / /a/b rw - tmpfs b rw\n"
                                             "32 20 0:52 / /a rw - tmpfs beside rw\n"  // the kernel hangs it on 30
                                             "33 30 0:53 / /a rw - tmpfs over rw\n"
                                             "34 20 0:54 / /aa rw - tmpfs aa rw\n");
  const auto source = [&](const char* path) {
    const MountEntry* entry = table.holder(path);
    return entry ? entry->source : "none";
  };
  EXPECT_EQ(source("/"), "/dev/vda");
  EXPECT_EQ(source("/ab"), "/dev/vda");
  EXPECT_EQ(source("/aa/x/"), "aa");
  EXPECT_EQ(source("relative"), "none");
  EXPECT_EQ(source("/a/b/c"), "beside");
  EXPECT_EQ(table.at("/a/b"), nullptr);
  EXPECT_FALSE(table.isVisible(table.entries()[2]));
}

TEST(MountTable, ARootOfAnyKindIsTrustedAndNoneIsNeeded) {
  const std::string below = btrfsLine(30, 20, "/d", "/a/d", "/d");
  EXPECT_THAT(volumePoints(MountTable::parse("20 1 0:30 / / rw - 9p host rw\n" + below)), ElementsAre("/a/d"));
  const MountTable table = MountTable::parse(btrfsLine(30, 7, "/home", "/home", "/home"));
  EXPECT_THAT(volumePoints(table), ElementsAre("/home"));
  EXPECT_EQ(table.holder("/elsewhere"), nullptr);
}

TEST(MountTable, TextThatNoKernelWritesHarmsNothing) {
  for (const std::string text :
       {"", "\n\n", "x", "1 2 3:4", "1 1 1:1 / / rw - ", "1 2 0:1 / / rw\n",
        "1 2 0:1 / /a rw - t s rw\n2 1 0:1 / /a rw - t s rw\n", "1 1 0:1 / relative rw - t s rw\n",
        "1 1 0:1 / /\\9 rw - btrfs \\ \\0,subvolid=x,subvol=\\777\n"}) {
    const MountTable table = MountTable::parse(text);
    static_cast<void>(table.volumes());
    static_cast<void>(table.holder("/a/b"));
  }
}

TEST(MountTable, TellsWhereAFileSystemIsWrittenAndWhichSubvolumesAreMounted) {
  const MountTable table = MountTable::parse(rootLine + btrfsLine(30, 20, "/s/1", "/s", "/s/1", "ro") +
                                             btrfsLine(31, 20, "/home/x", "/x", "/home", "rw", "rw", "257"));
  EXPECT_EQ(table.writableMount({0, 40})->mountPoint, "/x");
  EXPECT_EQ(table.writableMount({0, 41}), nullptr);
  EXPECT_TRUE(table.isMounted({0, 40}, 256));
  EXPECT_TRUE(table.isMounted({0, 40}, 257));
  EXPECT_FALSE(table.isMounted({0, 40}, 258));
}

}  // namespace
}  // namespace quillmark::os
