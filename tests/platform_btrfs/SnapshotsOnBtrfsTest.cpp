#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "BtrfsMachine.h"
#include "platform/NameText.h"
#include "platform/contract/SnapshotCallsSuite.h"
#include "platform/linux/PropertyList.h"

namespace quillmark::os {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SnapshotsOnBtrfs : public ::testing::Test {
 protected:
  int create(const std::string& mountPoint, const std::string& name) {
    return machine.calls.fs_snapshot_create(*machine.open(mountPoint), name).error();
  }
  int remove(const std::string& mountPoint, const std::string& name) {
    const Xid xid = contract::xidOf(machine.calls, *machine.open(mountPoint), name);
    return machine.calls.fs_snapshot_delete(*machine.open(mountPoint), name, xid).error();
  }
  // Where our snapshots of "data" stand, as seen through the mounted top level.
  std::string place() { return machine.top + "/.quillmark/" + machine.uuidAt(machine.volume).text(); }
  std::string makeDirectory(const std::string& name) {
    machine.shell("mkdir -p " + machine.root + "/" + name);
    return machine.root + "/" + name;
  }
  std::uint64_t availableBytes() {
    struct statvfs status;
    EXPECT_EQ(::statvfs(machine.volume.c_str(), &status), 0);
    return status.f_bavail * status.f_frsize;
  }

  BtrfsMachine machine;
};

TEST_F(SnapshotsOnBtrfs, AForeignSnapshotKeepsItsNameWhateverItsBytesAndDiskutilSpellsItAlike) {
  const std::string snapshot = "btrfs -q subvolume snapshot -r " + machine.volume + " ";
  machine.shell("cd " + machine.top + "; mkdir -p 'a:b/c' a; " + snapshot + "'a:b/c/d'; " + snapshot + "'a/b%3Ac'; " +
                snapshot + "$'line\\nfeed'; " + snapshot + "$'\\xff\\xfe'; " + snapshot + "com.apple.os.update-1; " +
                snapshot + "com.harrowfern.Quillmark.manual.x");
  const std::string deep(120, 'p');
  machine.shell("cd " + machine.top + "; mkdir -p " + deep + "/1/" + deep + " " + deep + "/2/" + deep + "; " +
                snapshot + deep + "/1/" + deep + "/same; " + snapshot + deep + "/2/" + deep + "/same");
  ASSERT_EQ(create(machine.volume, "ours"), 0);
  const auto names = machine.names(machine.volume);
  EXPECT_THAT(std::vector(names.begin(), names.begin() + 6),
              ElementsAre(":a%3Ab:c:d", ":a:b%253Ac", ":line\U0010EF0Afeed", ":\U0010EFFF\U0010EFFE",
                          ":com.apple.os.update-1", ":com.harrowfern.Quillmark.manual.x"));
  ASSERT_EQ(names.size(), 9u);
  EXPECT_EQ(std::set(names.begin(), names.end()).size(), names.size());
  EXPECT_THAT(names[6], ::testing::StartsWith("::"));
  EXPECT_EQ(names[6].size(), 240u);
  EXPECT_EQ(names[8], "ours");

  const std::string device = *machine.disks.describe(machine.volume)->mediaBsdName;
  const PropertyList list =
      LinuxPropertyLists().parse(machine.shell(DISKUTIL_PROGRAM " apfs listSnapshots -plist " + device));
  const auto entries = contract::listAll(machine.calls, *machine.open(machine.volume));
  const PropertyArray& rows = *list.find("Snapshots")->array();
  ASSERT_EQ(rows.size(), entries.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(*rows[i].find("SnapshotName")->string(), entries[i].name);
    EXPECT_EQ(rows[i].find("SnapshotXID")->unsignedNumber(), entries[i].fileId);
  }
  for (const std::string& name : names) EXPECT_EQ(remove(machine.volume, name), 0) << name;
  EXPECT_THAT(machine.names(machine.volume), IsEmpty());
}

TEST_F(SnapshotsOnBtrfs, OnlyReadOnlySnapshotsOfTheVolumeAreListedAndNothingElseIsEverDeleted) {
  ASSERT_EQ(create(machine.volume, "ours"), 0);
  machine.shell("btrfs -q subvolume snapshot " + machine.volume + " " + place() +
                "/writable; btrfs -q subvolume create " + place() + "/empty; btrfs -q subvolume snapshot -r " +
                place() + "/ours " + place() + "/grandchild; " + "btrfs -q subvolume snapshot -r " + machine.top + " " +
                machine.top + "/of-the-top; mkdir " + place() + "/plain");
  EXPECT_THAT(machine.names(machine.volume), ElementsAre("ours"));
  EXPECT_THAT(machine.names(machine.top), ElementsAre(":of-the-top"));
  for (const char* name : {"writable", "empty", "grandchild", "plain", ":data", "data", ":of-the-top", ":.quillmark"}) {
    EXPECT_EQ(remove(machine.volume, name), ENOENT) << name;
  }
  machine.shell("ls " + place() + "/writable " + place() + "/empty " + place() + "/grandchild " + machine.top +
                "/data");
}

TEST_F(SnapshotsOnBtrfs, WhatIsSentOrPinnedSaysWhyItStays) {
  machine.shell("head -c 4M /dev/urandom > " + machine.volume + "/file");
  ASSERT_EQ(create(machine.volume, "sent"), 0);
  FILE* stream = ::popen(("exec btrfs -q send " + place() + "/sent 2>/dev/null").c_str(), "r");
  char byte;
  ASSERT_EQ(std::fread(&byte, 1, 1, stream), 1u);
  EXPECT_EQ(remove(machine.volume, "sent"), EBUSY);
  ::pclose(stream);
  EXPECT_EQ(remove(machine.volume, "sent"), 0);

  ASSERT_EQ(create(machine.volume, "pinned"), 0);
  const std::string property = "btrfs property set -f " + place() + "/pinned ro ";
  machine.shell(property + "false; chattr +i " + place() + "/pinned; " + property + "true");
  EXPECT_EQ(remove(machine.volume, "pinned"), EPERM);
  machine.shell(property + "false; chattr -i " + place() + "/pinned; " + property +
                "true; btrfs subvolume set-default " + place() + "/pinned");
  EXPECT_EQ(remove(machine.volume, "pinned"), EPERM);
  machine.shell("btrfs subvolume set-default 5 " + machine.top);
  EXPECT_EQ(remove(machine.volume, "pinned"), 0);
}

TEST_F(SnapshotsOnBtrfs, APlaceThatIsNotOursIsRefused) {
  const std::string places = machine.top + "/.quillmark";
  ASSERT_EQ(create(machine.volume, "first"), 0);
  for (const char* spoil : {"chmod 0750 P", "chown nobody P", "mv P P.away; btrfs -q subvolume create P; chmod 0700 P",
                            "mv P P.away; ln -s P.away P", "mv P P.away; touch P"}) {
    const auto forPath = [&](std::string command, const std::string& path) {
      for (std::size_t at = command.find('P'); at != command.npos; at = command.find('P', at + path.size())) {
        command.replace(at, 1, path);
      }
      machine.shell(command);
    };
    for (const std::string& path : {places, place()}) {
      forPath(spoil, path);
      EXPECT_EQ(create(machine.volume, "second"), EPERM) << spoil << " of " << path;
      if (std::string_view(spoil).starts_with("mv")) {
        forPath("[ -h P ] || [ -f P ] || btrfs -q subvolume delete P; rm -f P; mv P.away P", path);
      }
      forPath("chmod 0700 P; chown root P", path);
    }
  }
  EXPECT_EQ(create(machine.volume, "second"), 0);
}

TEST_F(SnapshotsOnBtrfs, ATopLevelThatHandsItsGroupDownIsNoHindrance) {
  machine.shell("chown root:users " + machine.top + "; chmod 2775 " + machine.top);
  EXPECT_EQ(create(machine.volume, "made"), 0);
  const std::string modes = "stat -c '%a %u %g' " + machine.top + "/.quillmark " + place();
  EXPECT_EQ(machine.shell(modes), "700 0 0\n700 0 0\n");
  machine.shell("chmod 2700 " + machine.top + "/.quillmark " + place() + "; chgrp users " + place());
  EXPECT_EQ(create(machine.volume, "repaired"), 0);
  EXPECT_EQ(machine.shell(modes), "700 0 0\n700 0 0\n");
}

TEST_F(SnapshotsOnBtrfs, AMountOfASnapshotDeletedBehindOurBackStillLooksLikeOneAndIsUnmounted) {
  ASSERT_EQ(create(machine.volume, "gone"), 0);
  const std::string directory = makeDirectory("mounted");
  const Xid xid = contract::xidOf(machine.calls, *machine.open(machine.volume), "gone");
  ASSERT_TRUE(machine.calls.fs_snapshot_mount(*machine.open(machine.volume), directory, "gone", xid,
                                              mntReadOnly | mntNoSuid | mntNoDev));
  const std::string before = machine.calls.statfs(directory)->mntfromname;
  EXPECT_THAT(before, ::testing::StartsWith("gone@/dev/disk"));
  const std::uint64_t id = *MountTable::read()->at(directory)->subvolumeId;
  machine.shell("btrfs -q subvolume delete " + place() + "/gone");
  const auto status = machine.calls.statfs(directory);
  EXPECT_EQ(status->mntfromname, "deleted-" + std::to_string(id) + "@" + machine.device);
  EXPECT_EQ(status->fstypename, "apfs");
  EXPECT_EQ(status->mntonname, directory);
  EXPECT_NE(status->flags & mntReadOnly, 0u);
  EXPECT_EQ(machine.calls.unmount(directory, false).error(), 0);
  EXPECT_EQ(machine.calls.statfs(directory)->mntonname, "/mnt");
}

// Also one that held what was deleted and still open, which the kernel tidies up after making it.
TEST_F(SnapshotsOnBtrfs, OnlyWhatSomebodyChangedInASnapshotCountsAsAChange) {
  machine.shell("echo a > " + machine.volume + "/file");
  ASSERT_EQ(create(machine.volume, "plain"), 0);
  ASSERT_EQ(create(machine.volume, "changed"), 0);
  const std::string orphan = machine.volume + "/orphan";
  const UniqueFd open(::open(orphan.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(::pwrite(open.get(), "x", 1, 1 << 20), 1);
  ASSERT_EQ(::unlink(orphan.c_str()), 0);
  ASSERT_EQ(create(machine.volume, "tidied"), 0);

  const auto xidOf = [&](const char* name) {
    return contract::xidOf(machine.calls, *machine.open(machine.volume), name);
  };
  const auto changes = [&] {
    machine.shell("btrfs filesystem sync " + machine.top);
    return *machine.calls.changedSnapshots(*machine.open(machine.volume));
  };
  const std::string directory = makeDirectory("mounted");
  const auto mountedChange = [&](const char* name) {
    EXPECT_TRUE(machine.calls.fs_snapshot_mount(*machine.open(machine.volume), directory, name, xidOf(name),
                                                mntReadOnly | mntNoSuid | mntNoDev));
    const auto change = machine.calls.lastChange(directory);
    EXPECT_TRUE(machine.calls.unmount(directory, false));
    return *change;
  };
  EXPECT_EQ(mountedChange("plain"), 0u);
  EXPECT_EQ(mountedChange("changed"), 0u);
  const std::uint64_t tidied = mountedChange("tidied");
  auto found = changes();
  EXPECT_LE(found[xidOf("tidied")], tidied);
  found.erase(xidOf("tidied"));
  EXPECT_THAT(found, IsEmpty());

  const std::string way = place() + "/changed";
  machine.shell("btrfs property set -f " + way + " ro false; echo b > " + way + "/file; btrfs property set " + way +
                " ro true");
  const std::uint64_t before = mountedChange("changed");
  found = changes();
  found.erase(xidOf("tidied"));
  EXPECT_EQ(found.size(), 1u);
  EXPECT_GE(found[xidOf("changed")], before);
  EXPECT_EQ(mountedChange("changed"), found[xidOf("changed")]);
  EXPECT_EQ(mountedChange("plain"), 0u);
}

// No descriptor can be opened while it lives.
class NoDescriptors final {
 public:
  NoDescriptors() {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    const rlimit none{0, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  }
  ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_;
};

TEST_F(SnapshotsOnBtrfs, OutOfDescriptorsIsSaidAsSuch) {
  const auto volume = machine.open(machine.volume);
  const auto source = sourceOf(*openSubvolume(*MountTable::read()->at(machine.volume)));
  ASSERT_TRUE(machine.disks.startSession());
  {
    const NoDescriptors none;
    EXPECT_FALSE(machine.disks.startSession());
    EXPECT_EQ(PrivateMount::openTopLevel(*source).error(), EMFILE);
    EXPECT_EQ(machine.calls.fs_snapshot_create(*volume, "s").error(), EMFILE);
  }
  EXPECT_EQ(machine.calls.fs_snapshot_create(*volume, "s").error(), 0);
}

TEST_F(SnapshotsOnBtrfs, OnlyWholeWritableSubvolumesAreVolumes) {
  const std::string bound = makeDirectory("bound"), again = machine.root + "/again",
                    readOnly = machine.root + "/read-only";
  machine.shell("mkdir " + machine.volume + "/folder; mount --bind " + machine.volume + "/folder " + bound);
  machine.mount(again, "subvol=data");
  machine.mount(readOnly, "ro,subvol=data");
  ASSERT_EQ(create(machine.top, "of-the-top"), 0);
  EXPECT_THAT(machine.mountedVolumes(), ElementsAre(machine.top, machine.volume));
  EXPECT_EQ(machine.disks.describe(bound)->volumeKind, "btrfs");
  EXPECT_EQ(machine.disks.describe(readOnly)->mediaWritable, false);
  EXPECT_EQ(machine.calls.open(bound, machine.uuidAt(machine.volume)).error(), ESTALE);
  EXPECT_EQ(machine.calls.open(readOnly, machine.uuidAt(machine.volume)).error(), ESTALE);
  EXPECT_EQ(machine.disks.describe(machine.top)->volumeName, "Tests");
  EXPECT_EQ(machine.disks.describe(machine.volume)->volumeName, "data");
  EXPECT_EQ(machine.disks.describe(machine.volume)->deviceProtocol, "Loop");
  EXPECT_EQ(machine.disks.describe(machine.volume)->deviceInternal, false);
  EXPECT_THAT(machine.names(machine.top), ElementsAre("of-the-top"));
  EXPECT_EQ(machine.calls.statfs(machine.volume + "/folder/none").error(), ENOENT);
  machine.shell("ln -s " + machine.volume + " " + machine.root + "/link");
  EXPECT_EQ(machine.calls.statfs(machine.root + "/link/folder/../folder")->mntonname, machine.volume);
  EXPECT_EQ(machine.calls.statfs(bound)->fstypename, "btrfs");
}

TEST_F(SnapshotsOnBtrfs, AFileSystemThatItsUserMadeReadOnlyStaysSo) {
  const auto volume = machine.open(machine.volume);
  ASSERT_EQ(machine.calls.fs_snapshot_create(*volume, "before").error(), 0);
  machine.shell("mount -o remount,ro " + machine.top);
  EXPECT_EQ(machine.calls.fs_snapshot_create(*volume, "after").error(), EROFS);
  EXPECT_EQ(machine.calls.fs_snapshot_delete(*volume, "before", Xid{1}).error(), EROFS);
  machine.shell("awk '$5 == \"" + machine.top + "\"' /proc/self/mountinfo | grep -q ' - btrfs [^ ]* ro,'");
}

TEST_F(SnapshotsOnBtrfs, TheDeviceIsFreeAsSoonAsTheUserUnmounts) {
  ASSERT_EQ(create(machine.volume, "one"), 0);
  ASSERT_EQ(create(machine.volume, "two"), 0);
  ASSERT_EQ(remove(machine.volume, "one"), 0);
  ASSERT_TRUE(machine.calls.waitForSpace(std::chrono::seconds(30)));
  EXPECT_THAT(machine.names(machine.volume), ElementsAre("two"));
  const UniqueFd keepsLoop(::open(machine.device.c_str(), O_RDONLY | O_CLOEXEC));
  machine.shell("umount " + machine.volume + " " + machine.top);
  EXPECT_TRUE(UniqueFd(::open(machine.device.c_str(), O_RDWR | O_EXCL | O_CLOEXEC)).valid()) << std::strerror(errno);
  EXPECT_THAT(machine.shell("btrfs check " + machine.device), ::testing::HasSubstr("no error found"));
}

TEST_F(SnapshotsOnBtrfs, ReclaimingEndsWhenTheUserUnmounts) {
  ASSERT_EQ(create(machine.volume, "held"), 0);
  const UniqueFd holds(::open((place() + "/held").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(remove(machine.volume, "held"), 0);
  EXPECT_FALSE(machine.calls.waitForSpace(std::chrono::milliseconds(300)));
  const UniqueFd keepsLoop(::open(machine.device.c_str(), O_RDONLY | O_CLOEXEC));
  machine.shell("umount -l " + machine.volume + " " + machine.top);
  EXPECT_TRUE(machine.calls.waitForSpace(std::chrono::seconds(5)));
}

TEST_F(SnapshotsOnBtrfs, SpaceOfADeletedSnapshotIsBackWithinMoments) {
  constexpr std::uint64_t size = 150 << 20;
  machine.shell("head -c 150M /dev/zero | tr '\\0' 'x' > " + machine.volume + "/big; sync -f " + machine.volume);
  const std::uint64_t before = availableBytes();
  ASSERT_EQ(create(machine.volume, "holds-it"), 0);
  machine.shell("rm " + machine.volume + "/big; sync -f " + machine.volume);
  EXPECT_LT(availableBytes(), before + size / 2);
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(remove(machine.volume, "holds-it"), 0);
  ASSERT_TRUE(machine.calls.waitForSpace(machine.volume, std::chrono::seconds(30)));
  EXPECT_GT(availableBytes(), before + size * 9 / 10);
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  std::printf("150 MB came back %lld ms after the deletion began\n", static_cast<long long>(took.count()));
  EXPECT_LT(took, std::chrono::seconds(5));
  EXPECT_TRUE(machine.calls.waitForSpace(machine.volume, std::chrono::seconds(0))) << "nothing is under way";
  EXPECT_TRUE(machine.calls.waitForSpace("/nowhere", std::chrono::seconds(0)));
}

TEST_F(SnapshotsOnBtrfs, IdentitiesAscendAlsoWhenManyMakeSnapshotsAtOnceAndIdsReturnAfterARemount) {
  const auto queue = machine.dispatch.global(QualityOfService::userInitiated);
  Group group(machine.dispatch);
  Guarded<std::vector<int>> errors(machine.dispatch);
  for (int i = 0; i < 40; ++i) {
    group.enter();
    queue->async([&, i] {
      const int error = create(machine.volume, "s" + std::to_string(i));
      errors.with([&](auto& all) { all.push_back(error); });
      group.leave();
    });
  }
  group.wait();
  errors.with([](auto& all) { EXPECT_THAT(all, ::testing::AllOf(::testing::SizeIs(40), ::testing::Each(0))); });
  const auto entries = contract::listAll(machine.calls, *machine.open(machine.volume));
  ASSERT_EQ(entries.size(), 40u);
  std::set<std::uint64_t> transactions;
  for (const auto& entry : entries) transactions.insert(entry.fileId >> 16);
  EXPECT_EQ(transactions.size(), 40u);  // one each, so that their order is the order of making
  for (const auto& entry : entries) ASSERT_EQ(remove(machine.volume, entry.name), 0);
  ASSERT_TRUE(machine.calls.waitForSpace(std::chrono::seconds(30)));
  machine.shell("L=$(losetup -n -O NAME " + machine.device + "); exec 9<$L; umount " + machine.volume + " " +
                machine.top + "; mount -o subvolid=5 " + machine.device + " " + machine.top +
                "; mount -o subvol=data " + machine.device + " " + machine.volume);
  ASSERT_EQ(create(machine.volume, "after"), 0);
  EXPECT_GT(contract::listAll(machine.calls, *machine.open(machine.volume)).at(0).fileId, entries.back().fileId);
}

// A FUSE file system whose server never says a word, unless it is told to.
class DeadMount final {
 public:
  explicit DeadMount(const std::string& directory)
      : directory_(directory), server_(::open("/dev/fuse", O_RDWR | O_CLOEXEC)) {
    const std::string options = "fd=" + std::to_string(server_.get()) + ",rootmode=40000,user_id=0,group_id=0";
    mounted = server_.valid() && ::mount("dead", directory.c_str(), "fuse", 0, options.c_str()) == 0;
  }
  ~DeadMount() { ::umount2(directory_.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW); }
  bool mounted = false;

  // Every name is a directory, and nothing that was told is remembered.
  void answerWhile(FunctionRef<void()> work) {
    std::atomic<bool> done = false;
    std::thread server([&] {
      while (!done) {
        pollfd wanted{server_.get(), POLLIN, 0};
        if (::poll(&wanted, 1, 10) == 1) answerOne();
      }
    });
    work();
    done = true;
    server.join();
  }

 private:
  void answerOne() {
    alignas(fuse_in_header) char request[1 << 17];
    if (::read(server_.get(), request, sizeof request) < static_cast<ssize_t>(sizeof(fuse_in_header))) return;
    const auto& asked = *reinterpret_cast<const fuse_in_header*>(request);
    fuse_attr directory{};
    directory.ino = 2;
    directory.mode = S_IFDIR | 0755;
    directory.nlink = 2;
    if (asked.opcode == FUSE_INIT) {
      fuse_init_out init{};
      init.major = FUSE_KERNEL_VERSION;
      init.minor = FUSE_KERNEL_MINOR_VERSION;
      init.max_write = 4096;
      reply(asked, 0, &init, sizeof init);
    } else if (asked.opcode == FUSE_LOOKUP) {
      fuse_entry_out entry{};
      entry.nodeid = 2;
      entry.attr = directory;
      reply(asked, 0, &entry, sizeof entry);
    } else if (asked.opcode == FUSE_GETATTR) {
      fuse_attr_out attributes{};
      directory.ino = asked.nodeid;
      attributes.attr = directory;
      reply(asked, 0, &attributes, sizeof attributes);
    } else if (asked.opcode != FUSE_FORGET && asked.opcode != FUSE_BATCH_FORGET && asked.opcode != FUSE_INTERRUPT) {
      reply(asked, -ENOSYS, nullptr, 0);
    }
  }
  void reply(const fuse_in_header& asked, int error, void* body, std::size_t size) {
    fuse_out_header head{};
    head.len = static_cast<std::uint32_t>(sizeof head + size);
    head.error = error;
    head.unique = asked.unique;
    const iovec parts[] = {{&head, sizeof head}, {body, size}};
    static_cast<void>(::writev(server_.get(), parts, 2));
  }

  std::string directory_;
  UniqueFd server_;
};

TEST_F(SnapshotsOnBtrfs, ADeadFileSystemHangsNothing) {
  ::alarm(30);  // ends a test that hangs
  ASSERT_EQ(create(machine.volume, "s"), 0);
  const std::string directory = makeDirectory("dead");
  {
    const DeadMount dead(directory);
    ASSERT_TRUE(dead.mounted);
    const auto status = machine.calls.statfs(directory + "/some/path");
    ASSERT_TRUE(status);
    EXPECT_EQ(status->mntonname, directory);
    EXPECT_EQ(status->fstypename, "fuse");
    EXPECT_EQ(machine.disks.describe(directory)->volumeKind, "fuse");
    EXPECT_FALSE(machine.disks.capacities(directory).total);
    EXPECT_THAT(machine.mountedVolumes(), ElementsAre(machine.top, machine.volume));
    EXPECT_THAT(machine.names(machine.volume), ElementsAre("s"));
    EXPECT_EQ(machine.calls.unmount(directory + "/below", false).error(), EINVAL);
    EXPECT_EQ(remove(machine.volume, "s"), 0);
  }
  const VolumeUuid uuid = machine.uuidAt(machine.volume);
  const DeadMount over(machine.root);  // covers the volumes' mount points
  ASSERT_TRUE(over.mounted);
  EXPECT_THAT(machine.mountedVolumes(), IsEmpty());
  EXPECT_FALSE(machine.disks.describe(machine.volume));
  EXPECT_EQ(machine.calls.open(machine.volume, uuid).error(), ENOENT);
  EXPECT_EQ(machine.calls.statfs(machine.volume)->mntonname, machine.root);
  ::alarm(0);
}

TEST_F(SnapshotsOnBtrfs, AVolumeBelowADeadFileSystemIsNotServedAndHangsNoOther) {
  ::alarm(30);  // ends a test that hangs
  const std::string dead = makeDirectory("dead"), lost = dead + "/lost";
  const VolumeUuid topUuid = machine.uuidAt(machine.top);
  machine.shell("umount " + machine.top);
  const std::size_t mediaBefore = machine.disks.mediaBsdNames()->size();
  DeadMount server(dead);
  ASSERT_TRUE(server.mounted);
  server.answerWhile([&] { machine.mount(lost, "subvolid=5"); });
  ASSERT_TRUE(MountTable::read()->at(lost));
  EXPECT_THAT(machine.mountedVolumes(), ElementsAre(machine.volume));
  EXPECT_EQ(machine.disks.describe(lost)->volumeUuid, std::nullopt);
  EXPECT_FALSE(machine.disks.capacities(lost).total);
  EXPECT_EQ(machine.disks.mediaBsdNames()->size(), mediaBefore);
  EXPECT_EQ(machine.calls.open(lost, topUuid).error(), ESTALE);
  EXPECT_EQ(machine.calls.statfs(lost)->mntonname, lost);
  machine.shell("timeout 10 " DISKUTIL_PROGRAM " apfs list -plist");
  EXPECT_EQ(create(machine.volume, "s"), 0);
  EXPECT_THAT(machine.names(machine.volume), ElementsAre("s"));
  ::alarm(0);
}

TEST_F(SnapshotsOnBtrfs, AnOrdinaryUserMayAskDiskutilWhatVolumesThereAre) {
  const std::string device = *machine.disks.describe(machine.volume)->mediaBsdName;
  const std::string container = device.substr(0, device.find('s', 4));
  machine.shell("chmod 755 " + machine.root + "; cp " DISKUTIL_PROGRAM " /mnt/diskutil; chmod 755 /mnt /mnt/diskutil");
  const std::string asNobody = "setpriv --reuid 65534 --regid 65534 --clear-groups /mnt/diskutil ";
  LinuxPropertyLists lists;
  const PropertyList information = lists.parse(machine.shell(asNobody + "info -plist " + device));
  EXPECT_EQ(*information.find("BusProtocol")->string(), "Loop");
  EXPECT_EQ(VolumeUuid(*information.find("VolumeUUID")->string()), machine.uuidAt(machine.volume));
  EXPECT_EQ(information.find("EncryptionThisVolumeProper"), nullptr);
  const PropertyList list = lists.parse(machine.shell(asNobody + "apfs list -plist"));
  const auto& containers = *list.find("Containers")->array();
  const auto ours = std::find_if(containers.begin(), containers.end(), [&](const PropertyList& row) {
    return *row.find("ContainerReference")->string() == container;
  });
  ASSERT_NE(ours, containers.end());
  EXPECT_EQ(ours->find("CapacityCeiling")->unsignedNumber(), machine.disks.capacities(machine.volume).total);
  EXPECT_GT(*ours->find("CapacityFree")->unsignedNumber(), 0u);
  const auto& volumes = *ours->find("Volumes")->array();
  ASSERT_EQ(volumes.size(), 2u);
  EXPECT_EQ(*volumes[1].find("DeviceIdentifier")->string(), device);
  EXPECT_EQ(volumes[1].find("CapacityInUse"), nullptr);
  for (const char* wrong : {"", "info", "info -plist disk99s99", "apfs listSnapshots -plist disk1", "eject disk1"}) {
    EXPECT_NE(machine.shell("! " DISKUTIL_PROGRAM " " + std::string(wrong)), "") << wrong;
  }
}

std::chrono::nanoseconds fastestOf(int rounds, FunctionRef<void()> work) {
  std::chrono::nanoseconds best = std::chrono::hours(1);
  for (int i = 0; i < rounds; ++i) {
    const auto start = std::chrono::steady_clock::now();
    work();
    best = std::min<std::chrono::nanoseconds>(best, std::chrono::steady_clock::now() - start);
  }
  return best;
}

// Goal:   listing costs little beside the questions to the kernel that it can't do without.
// Method: the same root items read and the same directories resolved by a bare loop; fastest of several rounds each.
TEST_F(SnapshotsOnBtrfs, AThousandSnapshotsAreListedWithinThriceTheBareCost) {
  ASSERT_EQ(create(machine.volume, "first"), 0);
  const UniqueFd source(::open(machine.volume.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const UniqueFd directory(::open(place().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int i = 0; i < 999; ++i) {
    ASSERT_TRUE(
        btrfs::createSnapshot(directory.get(), source.get(), "com.harrowfern.Quillmark.auto." + std::to_string(i)));
  }
  const auto bare = fastestOf(9, [&] {
    std::set<std::uint64_t> directories;
    std::size_t count = 0;
    ASSERT_TRUE(btrfs::forEachSubvolume(source.get(), [&](const btrfs::Subvolume&, const btrfs::Place& place) {
      ++count;
      if (!directories.insert(place.directory).second || place.directory == btrfs::rootInode) return;
      ASSERT_TRUE(btrfs::directoryPath(source.get(), place.parent, place.directory));
    }));
    ASSERT_EQ(count, 1001u);
  });
  const VolumeUuid uuid = machine.uuidAt(machine.volume);
  const auto full = fastestOf(9, [&] {
    const auto volume = machine.calls.open(machine.volume, uuid);
    ASSERT_TRUE(volume);
    std::vector<std::byte> buffer(65536);
    int count = 0, more = 0;
    while ((more = *machine.calls.fs_snapshot_list(**volume, contract::everyAttribute, buffer)) > 0) count += more;
    ASSERT_EQ(count, 1000);
  });
  std::printf("1,000 snapshots: bare %.3f ms, listed %.3f ms\n", static_cast<double>(bare.count()) / 1e6,
              static_cast<double>(full.count()) / 1e6);
#if !defined(__SANITIZE_ADDRESS__)
  EXPECT_LT(full, bare * 3);
#endif
  const auto source2 = sourceOf(*openSubvolume(*MountTable::read()->at(machine.volume)));
  const auto mounting = fastestOf(9, [&] { ASSERT_TRUE(PrivateMount::openTopLevel(*source2)); });
  std::printf("a private mount: %.3f ms\n", static_cast<double>(mounting.count()) / 1e6);
}

}  // namespace
}  // namespace quillmark::os
