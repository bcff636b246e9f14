#include <cmath>

#include "SnapshotMachine.h"
#include "platform/Files.h"
#include "snapshots/SnapshotIdentity.h"

namespace quillmark {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST(SnapshotIdentity, asksDiskutilOnlyForWhatItHasNeverSeen) {
  SnapshotMachine machine;
  machine.run([&] {
    EXPECT_THAT(machine.names(), IsEmpty());
    EXPECT_THAT(machine.names(), IsEmpty());
    EXPECT_EQ(machine.diskutilRuns(), 1U);
    const Xid first = machine.add("a"), second = machine.add("b");
    const auto records = machine.apfs.listSnapshots(machine.volume());
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].xid, first);
    EXPECT_EQ(records[1].xid, second);
    EXPECT_EQ(machine.diskutilRuns(), 2U);
    machine.remove("a");
    EXPECT_THAT(machine.names(), ElementsAre("b"));
    EXPECT_EQ(machine.diskutilRuns(), 2U);
    // Made again under its name it is another snapshot.
    machine.add("a");
    EXPECT_THAT(machine.names(), ElementsAre("b", "a"));
    EXPECT_EQ(machine.diskutilRuns(), 3U);
  });
}

TEST(SnapshotIdentity, remembersOverARestartAndForgetsWhatIsGone) {
  SnapshotMachine machine;
  const std::string file = machine.paths.state("snapshot-xids/") + machine.uuid.lower() + ".json";
  machine.run([&] {
    machine.add("a");
    machine.add("b");
    (void)machine.names();
    machine.remove("a");
    (void)machine.names();
    EXPECT_THAT(*readFile(machine.posix, file), Not(HasSubstr("\"a\"")));
    SnapshotIdentity next(machine.life.dispatch(), machine.processes, machine.propertyLists, machine.posix,
                          machine.life.random(), machine.log, machine.paths, machine.fileIds);
    const VolumeInfo volume = machine.volume();
    EXPECT_EQ(next.resolve(volume, [&] { return machine.apfs.listRawSnapshots(volume); }, {}).size(), 1U);
    machine.remove("b");
    (void)machine.names();
    SnapshotIdentity last(machine.life.dispatch(), machine.processes, machine.propertyLists, machine.posix,
                          machine.life.random(), machine.log, machine.paths, machine.fileIds);
    EXPECT_THAT(last.resolve(volume, [&] { return machine.apfs.listRawSnapshots(volume); }, {}), IsEmpty());
    EXPECT_EQ(machine.diskutilRuns(), 1U) << "that there are none is remembered too";
  });
}

TEST(SnapshotIdentity, takesAnUnusableCacheFileForNone) {
  for (const char* pattern : {"", "rubbish", R"({"version":2,"rows":[ROW]})", R"({"version":1})", "[]",
                              R"({"version":1,"rows":[ROW,{"name":"b"}]})"}) {
    SnapshotMachine machine;
    machine.run([&] {
      const Xid xid = machine.add("a");
      // A row that would be believed, with another XID.
      const RawSnapshotEntry entry = machine.apfs.listRawSnapshots(machine.volume()).at(0);
      std::string content = pattern;
      if (const auto at = content.find("ROW"); at != std::string::npos) {
        content.replace(at, 3,
                        R"({"name":"a","fileID":)" + std::to_string(entry.fileID) + R"(,"ctimeNS":)" +
                            std::to_string(std::llround(entry.created.secondsSince1970() * 1e9)) + R"(,"xid":5})");
      }
      const std::string directory = machine.paths.state("snapshot-xids");
      createDirectories(machine.posix, directory, 0700);
      writeAtomically(machine.posix, machine.life.random(), directory + "/" + machine.uuid.lower() + ".json", content,
                      0600);
      EXPECT_EQ(machine.apfs.listSnapshots(machine.volume()).at(0).xid, xid) << content;
      EXPECT_EQ(machine.diskutilRuns(), 1U);
    });
  }
}

TEST(SnapshotIdentity, goesOnWithoutItsFileAndSaysSo) {
  SnapshotMachine machine;
  machine.run([&] {
    machine.add("a");
    machine.posix.setPlan({.fault = sim::Fault::fail, .atCall = 1, .only = sim::PosixCall::rename, .error = ENOSPC});
    EXPECT_THAT(machine.names(), ElementsAre("a"));
    ASSERT_FALSE(machine.log.entries().empty());
    EXPECT_THAT(machine.log.entries().back().message,
                HasSubstr("snapshot XID cache for " + machine.uuid.lower() + " could not be written: "));
    EXPECT_THAT(machine.names(), ElementsAre("a"));
    EXPECT_EQ(machine.diskutilRuns(), 1U);
  });
}

TEST(SnapshotIdentity, givesUpOnAnInventoryThatChangesThreeTimes) {
  SnapshotMachine machine;
  machine.run([&] {
    machine.add("a");
    int made = 0;
    machine.volumes.watchCalls([&](sim::SimCall call, const std::string&) {
      // A new one between each kernel list and its diskutil run, and the last one gone again.
      if (call != sim::SimCall::open) return;
      if (made > 0) (void)machine.volumes.removeSnapshot(machine.uuid, "new" + std::to_string(made));
      machine.add("new" + std::to_string(++made));
    });
    machine.diskutilScript = [&](const std::string&) {
      return sim::SimProgram{.output = machine.propertyLists.write(PropertyList(PropertyDictionary{
                                 {"Snapshots", PropertyList(PropertyArray{PropertyList(PropertyDictionary{
                                                   {"SnapshotName", PropertyList(std::string("z"))},
                                                   {"SnapshotXID", PropertyList(std::uint64_t{1})}})})}}))};
    };
    const Error error = failureOf([&] { (void)machine.names(); });
    EXPECT_EQ(error.description(),
              "Snapshot inventory changed while resolving 64-bit XIDs (kernel-only=[\"a\", \"new3\"], "
              "diskutil-only=[\"z\"])");
    EXPECT_EQ(machine.diskutilRuns(), 3U);
  });
}

TEST(SnapshotIdentity, tellsEveryFailureOfDiskutil) {
  struct Case {
    sim::SimProgram program;
    const char* message;
  };
  const std::vector<Case> cases{
      {{.endsByItself = false}, "diskutil timed out while resolving snapshot XIDs on disk1s1"},
      {{.errors = "  no such disk \n", .status = 1}, "diskutil could not resolve snapshot XIDs: no such disk"},
      {{.errors = " \n", .status = 3}, "diskutil could not resolve snapshot XIDs (status 3)"},
      {{.errors = "\xFF", .status = 3}, "diskutil could not resolve snapshot XIDs (status 3)"},
      {{.launchError = "not there"}, "diskutil could not resolve snapshot XIDs: not there"},
      {{.output = std::string(9'000'000, ' ')},
       "diskutil could not resolve snapshot XIDs: Process output exceeded the 8388608-byte limit"},
      {{.output = "<plist/>"}, "diskutil returned an invalid snapshot plist: "},
  };
  for (const Case& bad : cases) {
    SnapshotMachine machine;
    machine.diskutilScript = [&](const std::string&) { return bad.program; };
    machine.add("a");
    machine.run([&] {
      const Error error = failureOf([&] { (void)machine.names(); });
      EXPECT_THAT(error.description(), ::testing::StartsWith(bad.message));
      EXPECT_EQ(error.code(), static_cast<long>(QuillmarkErrorCode::snapshotListFailed));
      machine.diskutilScript = nullptr;
      EXPECT_THAT(machine.names(), ElementsAre("a"));
      EXPECT_EQ(machine.diskutilRuns(), 2U) << "a failed listing leaves nothing behind";
    });
  }
}

// Goal:   a rename between the two listings never ties a name to another snapshot's XID.
// Method: two snapshots swap their names after the kernel's list was taken, so that both listings name the same set.
TEST(SnapshotIdentity, believesNoXidOfAnotherMoment) {
  SnapshotMachine machine;
  machine.run([&] {
    const Xid a = machine.add("a"), b = machine.add("b");
    bool isFirst = true;
    machine.beforeDiskutil = [&] {
      if (!std::exchange(isFirst, false)) return;
      machine.volumes.change(
          machine.uuid, [](sim::SimVolume& volume) { std::swap(volume.snapshots[0].name, volume.snapshots[1].name); });
    };
    const auto records = machine.apfs.listSnapshots(machine.volume());
    ASSERT_EQ(records.size(), 2U);
    for (const SnapshotRecord& record : records) EXPECT_EQ(record.xid, record.name == "b" ? a : b);
    EXPECT_EQ(machine.diskutilRuns(), 2U);
  });
}

TEST(SnapshotIdentity, movesFileIdsToXidsUnlessTwoShareOne) {
  SnapshotMachine machine(SnapshotIdentity::FileIds::areOfTheirOwn);
  std::map<std::uint64_t, Xid> moved;
  machine.services.callbacks.identityMigration = [&](const VolumeInfo&, const std::map<std::uint64_t, Xid>& map) {
    moved = map;
  };
  machine.run([&] {
    const Xid a = machine.add("a"), b = machine.add("b");
    machine.volumes.change(machine.uuid, [&](sim::SimVolume& volume) { volume.snapshots[0].fileId = 5; });
    (void)machine.names();
    EXPECT_THAT(moved, ElementsAre(std::pair(5U, a))) << "b's file ID is its XID already";
    machine.volumes.change(machine.uuid, [&](sim::SimVolume& volume) { volume.snapshots[1].fileId = 5; });
    const Error error = failureOf([&] { (void)machine.names(); });
    EXPECT_EQ(error.description(), "Snapshot roots reused file ID 5; refusing an ambiguous XID migration");
    (void)b;
  });
}

TEST(SnapshotIdentity, matchesReferencesByXidAndName) {
  SnapshotMachine machine;
  machine.run([&] {
    const Xid a = machine.add("a"), b = machine.add("b");
    const VolumeInfo volume = machine.volume();
    const auto records = machine.apfs.verifySnapshots(volume, {{"b", b}, {"a", a}});
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].name, "b");
    EXPECT_EQ(failureOf([&] {
                (void)machine.apfs.verifySnapshots(volume, {{"a", Xid{9}}});
              }).description(),
              "Snapshot 9 no longer exists on Data");
    EXPECT_EQ(failureOf([&] {
                (void)machine.apfs.verifySnapshots(volume, {{"x", a}});
              }).description(),
              "Snapshot " + std::to_string(a.value) + " on Data is \"a\", not \"x\"");
  });
}

}  // namespace
}  // namespace quillmark
