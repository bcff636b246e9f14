#include "SnapshotMachine.h"
#include "platform/Files.h"
#include "snapshots/APFSManager.h"
#include "snapshots/MountNames.h"

namespace quillmark {
namespace {

using SnapshotNameInfo::Kind;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(APFSManager, suffixesTheLabelOfATakenNameUpToEight) {
  SnapshotMachine machine;
  std::vector<std::string> told;
  machine.services.callbacks.inventoryChanged = [&](const std::string& uuid) { told.push_back(uuid); };
  machine.run([&] {
    const VolumeInfo volume = machine.volume();
    const Date date = Date::from1970(1740830400);
    const std::string plain = "com.harrowfern.Quillmark.manual.2025-03-01T12-00-00Z";
    EXPECT_EQ(machine.apfs.createSnapshot(volume, "", Kind::manual(), date), plain);
    for (int i = 2; i <= 8; ++i) {
      EXPECT_EQ(machine.apfs.createSnapshot(volume, "", Kind::manual(), date), plain + ".-" + std::to_string(i));
    }
    const Error error = failureOf([&] { (void)machine.apfs.createSnapshot(volume, "", Kind::manual(), date); });
    EXPECT_EQ(error.description(), "fs_snapshot_create failed: File exists");
    EXPECT_EQ(machine.volumes.snapshots(machine.uuid).size(), 8U);
    EXPECT_EQ(machine.apfs.createSnapshot(volume, "x", Kind::manual(), date), plain + ".x");
    EXPECT_EQ(machine.apfs.createSnapshot(volume, "x", Kind::manual(), date), plain + ".x-2");
    EXPECT_EQ(told.size(), 10U) << "one word for each that was made, none for a failure";
  });
}

TEST(APFSManager, saysWhatToDoWhenAVolumeMayNotBeRead) {
  SnapshotMachine machine;
  machine.run([&] {
    const VolumeInfo volume = machine.volume();
    struct Case {
      QuillmarkErrorCode code;
      std::function<void()> operation;
    };
    const std::vector<Case> cases{
        {QuillmarkErrorCode::snapshotCreateFailed,
         [&] { (void)machine.apfs.createSnapshot(volume, "", Kind::manual(), machine.now()); }},
        {QuillmarkErrorCode::snapshotDeleteFailed,
         [&] {
           machine.apfs.deleteSnapshot(volume, {"a", Xid{1}});
         }},
        {QuillmarkErrorCode::snapshotListFailed, [&] { (void)machine.apfs.listRawSnapshots(volume); }},
        {QuillmarkErrorCode::snapshotMountFailed, [&] {
           machine.apfs.mountSnapshot(volume, {"a", Xid{1}}, machine.paths.userMountRoot + "/a");
         }}};
    for (const Case& operation : cases) {
      for (const int error : {EACCES, EPERM, EIO}) {
        machine.volumes.failNext(sim::SimCall::open, error);
        const Error failure = failureOf([&] { operation.operation(); });
        EXPECT_EQ(failure.code(), static_cast<long>(operation.code));
        std::string wanted = "open(/Volumes/Data) failed: " + errnoText(error);
        if (error != EIO) {
          wanted +=
              ". Quillmark does not have permission to read this volume. Grant it Full Disk Access in System Settings "
              "▸ Privacy & Security, then re-index the volume.";
        }
        EXPECT_EQ(failure.description(), wanted);
      }
    }
  });
}

TEST(APFSManager, growsItsListBufferToSixteenMiBAndNoFurther) {
  SnapshotMachine machine;
  machine.run([&] {
    machine.add("a");
    const VolumeInfo volume = machine.volume();
    machine.volumes.failNext(sim::SimCall::list, ERANGE, 8);
    EXPECT_EQ(machine.apfs.listRawSnapshots(volume).size(), 1U) << "16 MiB itself is tried";
    machine.volumes.failNext(sim::SimCall::list, ERANGE, 9);
    EXPECT_EQ(failureOf([&] { (void)machine.apfs.listRawSnapshots(volume); }).description(),
              "fs_snapshot_list buffer grew past 16 MiB; aborting");
    machine.volumes.failNext(sim::SimCall::list, EIO);
    EXPECT_EQ(failureOf([&] { (void)machine.apfs.listRawSnapshots(volume); }).description(),
              "fs_snapshot_list failed: Input/output error");
  });
}

TEST(APFSManager, listsMoreThanOneBufferHolds) {
  SnapshotMachine machine;
  machine.run([&] {
    std::vector<std::string> names;
    for (int i = 0; i < 2000; ++i) names.push_back("snapshot-" + std::to_string(i) + std::string(60, 'x'));
    for (const std::string& name : names) machine.add(name);
    EXPECT_EQ(machine.names(), names);
  });
}

TEST(APFSManager, mountsReadOnlyAndCleansUpAfterAFailure) {
  SnapshotMachine machine;
  machine.run([&] {
    const SnapshotReference a{"a", machine.add("a")};
    const VolumeInfo volume = machine.volume();
    const std::string path = machine.paths.userMountRoot + "/Data@snap-1";
    machine.apfs.mountSnapshot(volume, a, path);
    EXPECT_TRUE(isSnapshotMount(machine.calls, path));
    EXPECT_EQ(machine.volumes.mounts().at(0).flags, mntReadOnly | mntNoSuid | mntNoDev);
    const std::string second = machine.paths.userMountRoot + "/other";
    const Error busy = failureOf([&] { machine.apfs.mountSnapshot(volume, a, second); });
    EXPECT_EQ(busy.description(), "Snapshot \"a\" is already mounted, so it cannot be mounted again right now.");
    EXPECT_EQ(busy.code(), static_cast<long>(QuillmarkErrorCode::snapshotInUse));
    EXPECT_FALSE(machine.posix.lstat(second)) << "the directory made for it is gone";
    EXPECT_EQ(failureOf([&] {
                machine.apfs.mountSnapshot(volume, {"b", a.xid}, second);
              }).description(),
              "fs_snapshot_mount failed: No such file or directory");
    machine.apfs.unmountSnapshot(path, false);
    EXPECT_FALSE(machine.posix.lstat(path));
  });
}

TEST(APFSManager, refusesAMountRootThatIsNoDirectory) {
  SnapshotMachine machine;
  machine.run([&] {
    const Xid xid = machine.add("a");
    ASSERT_TRUE(machine.posix.rmdir(machine.paths.userMountRoot));
    writeAtomically(machine.posix, machine.life.random(), machine.paths.userMountRoot, "", 0600);
    EXPECT_EQ(failureOf([&] {
                machine.apfs.mountSnapshot(machine.volume(), {"a", xid}, machine.paths.userMountRoot + "/a");
              }).description(),
              "Mount root exists but is not a directory: " + machine.paths.userMountRoot);
  });
}

TEST(APFSManager, unmountsWhatIsBusyByForceAndWhatIsGoneAsDone) {
  SnapshotMachine machine;
  machine.run([&] {
    const Xid xid = machine.add("a");
    const std::string path = machine.paths.userMountRoot + "/Data@snap-1";
    machine.apfs.mountSnapshot(machine.volume(), {"a", xid}, path);
    machine.volumes.setBusy(path, true);
    machine.apfs.unmountSnapshot(path, false);
    EXPECT_THAT(machine.volumes.mounts(), IsEmpty());
    EXPECT_FALSE(machine.posix.lstat(path));

    EXPECT_NO_THROW(machine.apfs.unmountSnapshot(path, false)) << "no mount point, no directory";
    createDirectories(machine.posix, path, 0700);
    EXPECT_NO_THROW(machine.apfs.unmountSnapshot(path, false));
    EXPECT_FALSE(machine.posix.lstat(path)) << "no mount point, but its directory";

    machine.volumes.failNext(sim::SimCall::unmount, EPERM);
    EXPECT_EQ(failureOf([&] { machine.apfs.unmountSnapshot(path, false); }).description(),
              "unmount(" + path + ") failed: Operation not permitted");
    createDirectories(machine.posix, path + "/leftover", 0700);
    EXPECT_EQ(failureOf([&] { machine.apfs.unmountSnapshot(path, false); }).description(),
              "rmdir(" + path + ") failed: Directory not empty");
  });
}

TEST(APFSManager, sweepsWhatIndexingLeftMountedAndNothingElse) {
  SnapshotMachine machine;
  machine.run([&] {
    const Xid a = machine.add("a"), b = machine.add("b"), c = machine.add("c");
    const VolumeInfo volume = machine.volume();
    const std::string root = machine.paths.privateMountRoot;
    machine.apfs.mountSnapshot(volume, {"a", a}, root + "/.index-a-1");
    machine.apfs.mountSnapshot(volume, {"b", b}, root + "/.index-b-2");
    machine.apfs.mountSnapshot(volume, {"c", c}, root + "/other");
    createDirectories(machine.posix, root + "/.index-empty", 0700);
    createDirectories(machine.posix, root + "/.index-full/x", 0700);
    machine.apfs.cleanStaleIndexMounts({root + "/.index-b-2"});
    std::vector<std::string> mounted;
    for (const auto& mount : machine.volumes.mounts()) mounted.push_back(mount.directory);
    EXPECT_THAT(mounted, ElementsAre(root + "/.index-b-2", root + "/other"));
    EXPECT_FALSE(machine.posix.lstat(root + "/.index-empty"));
    EXPECT_TRUE(machine.posix.lstat(root + "/.index-full"));
    EXPECT_EQ(machine.log.entries().back().message, "Removed stale indexing mount at " + root + "/.index-a-1");
  });
}

TEST(APFSManager, touchesNoOtherSnapshotThatTookTheName) {
  SnapshotMachine machine;
  machine.run([&] {
    const Xid first = machine.add("a");
    machine.remove("a");
    const Xid second = machine.add("a");
    ASSERT_NE(first, second);
    const VolumeInfo volume = machine.volume();
    EXPECT_EQ(failureOf([&] {
                machine.apfs.deleteSnapshot(volume, {"a", first});
              }).description(),
              "fs_snapshot_delete failed: No such file or directory");
    EXPECT_EQ(failureOf([&] {
                machine.apfs.mountSnapshot(volume, {"a", first}, machine.paths.userMountRoot + "/a");
              }).description(),
              "fs_snapshot_mount failed: No such file or directory");
    machine.apfs.deleteSnapshot(volume, {"a", second});
    EXPECT_THAT(machine.names(), IsEmpty());
  });
}

TEST(APFSManager, refusesToChooseBetweenAVolumeAndItsCopy) {
  SnapshotMachine machine;
  machine.volumes.add(sim::makeSimVolume(machine.uuid, "Data", "/Volumes/Copy", "disk2s1"));
  machine.run([&] {
    EXPECT_EQ(failureOf([&] { (void)machine.volume(); }).description(),
              "Two mounted volumes have the UUID " + machine.uuid.lower() +
                  ": /Volumes/Data and /Volumes/Copy. One seems to be a copy of the other; unmount one of them.");
  });
}

TEST(APFSManager, resolvesOnlyVolumesThatItServes) {
  struct Case {
    const char* what;
    std::function<void(DiskDescription&)> spoil;
    bool resolves;
    bool isData = true;
  };
  const std::vector<Case> cases{
      {"as it is", [](DiskDescription&) {}, true},
      {"another kind", [](DiskDescription& d) { d.volumeKind = "ext4"; }, false},
      {"no kind", [](DiskDescription& d) { d.volumeKind.reset(); }, false},
      {"kind in capitals", [](DiskDescription& d) { d.volumeKind = "APFS"; }, true},
      {"read-only media", [](DiskDescription& d) { d.mediaWritable = false; }, false},
      {"unknown writability", [](DiskDescription& d) { d.mediaWritable.reset(); }, true},
      {"internal system", [](DiskDescription& d) { d.role = std::string("System"), d.deviceInternal = true; }, false},
      {"external system", [](DiskDescription& d) { d.role = std::string("System"), d.deviceInternal = false; }, true,
       false},
      {"role in Roles", [](DiskDescription& d) { d.role = {}, d.roles = std::vector<std::string>{"DATA"}; }, true},
      {"no roles at all", [](DiskDescription& d) { d.role = std::vector<std::string>{}; }, true},
      {"no UUID", [](DiskDescription& d) { d.volumeUuid.reset(); }, false},
  };
  for (const Case& wanted : cases) {
    SnapshotMachine machine;
    machine.volumes.change(machine.uuid, [&](sim::SimVolume& volume) { wanted.spoil(volume.description); });
    machine.run([&] {
      if (wanted.resolves) {
        const VolumeInfo volume = machine.apfs.resolveVolume(machine.uuid.upper());
        EXPECT_EQ(volume.uuid, machine.uuid.upper()) << "spelled as the caller spelled it";
        EXPECT_EQ(volume.isAPFSData, wanted.isData) << wanted.what;
      } else {
        EXPECT_EQ(failureOf([&] { (void)machine.apfs.resolveVolume(machine.uuid.upper()); }).description(),
                  "No mounted APFS volume with UUID " + machine.uuid.upper())
            << wanted.what;
      }
    });
  }
}

}  // namespace
}  // namespace quillmark
