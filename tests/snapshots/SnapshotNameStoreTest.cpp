#include "StoreMachine.h"
#include "platform/sim/FaultSweep.h"

namespace quillmark {
namespace {

using sim::FaultRun;
using sim::SimPosix;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const VolumeUuid volume = data.key();

class SnapshotNameStoreTest : public ::testing::Test {
 protected:
  SnapshotNameStoreTest() { addVolumes(volumes); }
  std::string shown(StoreLife& from, const std::string& snapshot) {
    return from.names.displayName(volume, snapshot).value_or("none");
  }

  sim::SimVolumes volumes;
  SimPosix disk;
  StoreLife life{disk, volumes};
};

TEST_F(SnapshotNameStoreTest, keepsTrimmedNamesAndRemovesBlankOnes) {
  EXPECT_EQ(shown(life, "a"), "none");
  EXPECT_FALSE(life.names.setDisplayName(volume, "a", "\n\t\u00a0 before  the trip \u2029\r\n"));
  EXPECT_FALSE(life.names.setDisplayName(VolumeUuid(otherUuid.upper()), "a", "other"));
  EXPECT_EQ(shown(life, "a"), "before  the trip");
  EXPECT_EQ(life.file("snapshot-names.json"), R"({"00112233-4455-6677-8899-aabbccddeeff":{"a":"before  the trip"},)"
                                              R"("ffeeddcc-bbaa-4988-b766-554433221100":{"a":"other"}})");
  const auto status = disk.lstat(life.paths.state("snapshot-names.json"));
  EXPECT_EQ(std::tuple(status->mode, status->uid, status->gid), std::tuple(0600U, 0U, 0U));
  ASSERT_TRUE(disk.chmod(life.paths.stateDirectory, 0755));
  EXPECT_FALSE(life.names.setDisplayName(volume, "a", " \n "));
  EXPECT_EQ(disk.lstat(life.paths.stateDirectory)->mode, 0700U);
  EXPECT_EQ(life.file("snapshot-names.json"), R"({"ffeeddcc-bbaa-4988-b766-554433221100":{"a":"other"}})");
  StoreLife next(disk, volumes);
  EXPECT_EQ(next.names.displayName(VolumeUuid(otherUuid.upper()), "a"), "other");
  next.names.forgetDeleted(other.key(), "b");
  next.names.forgetDeleted(other.key(), "a");
  EXPECT_EQ(next.file("snapshot-names.json"), "{}");
}

TEST_F(SnapshotNameStoreTest, showsNothingOfAFileItCouldNotReadAndNeverWritesOverIt) {
  for (const char* damaged : {"", "rubbish", "[]", R"({"00112233-4455-6677-8899-aabbccddeeff":{"a":1}})",
                              R"({"00112233-4455-6677-8899-aabbccddeeff":{"a":"x","a":"y"}})"}) {
    StoreLife next(disk, volumes);
    next.putFile("snapshot-names.json", damaged);
    EXPECT_EQ(shown(next, "a"), "none");
    const std::string logged = next.log.entries().back().message;
    EXPECT_THAT(logged, StartsWith("snapshot name store is unreadable: "));
    const std::string detail = logged.substr(std::string("snapshot name store is unreadable: ").size());
    const std::optional<Error> failure = next.names.setDisplayName(volume, "a", "new");
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->description(), "The snapshot-name store is unreadable and will not be overwritten: " + detail);
    next.names.forgetDeleted(volume, "a");
    EXPECT_EQ(next.file("snapshot-names.json"), damaged);
    EXPECT_EQ(next.log.entries().size(), 1U);
  }
}

TEST_F(SnapshotNameStoreTest, goesOnAfterAWriteThatFailedWithTheNamesItHad) {
  ASSERT_FALSE(life.names.setDisplayName(volume, "a", "old"));
  disk.setPlan({.fault = sim::Fault::fail, .atCall = 1, .only = sim::PosixCall::rename, .error = ENOSPC});
  const std::optional<Error> failure = life.names.setDisplayName(volume, "a", "new");
  ASSERT_TRUE(failure);
  EXPECT_EQ(life.log.entries().back(),
            (sim::SimPlatformLog::Entry{PlatformLogType::error, "com.harrowfern.quillmark.helper", "names",
                                        "snapshot name store write failed: " + failure->description()}));
  EXPECT_EQ(shown(life, "a"), "old");
  EXPECT_FALSE(life.names.setDisplayName(volume, "b", "new"));
  EXPECT_EQ(shown(life, "b"), "new");
  disk.setPlan({.fault = sim::Fault::fail, .atCall = 1, .only = sim::PosixCall::rename, .error = ENOSPC});
  life.names.forgetDeleted(volume, "a");
  EXPECT_EQ(shown(life, "a"), "none");
}

struct SweepCase {
  const char* name;
  bool hadNames;
  const char* after;
  void (*operation)(StoreLife&);
};

void set(StoreLife& life, const char* name) {
  if (const auto failure = life.names.setDisplayName(volume, "a", name)) throw *failure;
}

const SweepCase sweepCases[] = {
    {"the first name", false, "new", [](StoreLife& life) { set(life, "new"); }},
    {"another name", true, "new", [](StoreLife& life) { set(life, "new"); }},
    {"no name", true, "none", [](StoreLife& life) { set(life, " "); }},
    {"forget", true, "none", [](StoreLife& life) { life.names.forgetDeleted(volume, "a"); }},
};

// Goal:   names are never lost or torn: acknowledged they outlive a kill and a power cut, failed they are the old or
//         the new ones.
// Method: each operation with each of its calls going wrong; another life looks at what is left, and can go on.
TEST(SnapshotNameStoreFaults, neverLoseAName) {
  sim::SimVolumes volumes;
  addVolumes(volumes);
  for (const SweepCase& swept : sweepCases) {
    const bool isForgetting = std::string_view(swept.name) == "forget";
    const auto complaints = sim::forEachFault(
        {.errors = {EIO, ENOSPC, EROFS, EINTR}},
        [&](SimPosix& posix) {
          StoreLife life(posix, volumes);
          if (!swept.hadNames) return;
          set(life, "old");
          static_cast<void>(life.names.setDisplayName(volume, "b", "bystander"));
        },
        [&](SimPosix& posix) {
          StoreLife life(posix, volumes);
          swept.operation(life);
        },
        [&](SimPosix& posix, const FaultRun& run) -> std::string {
          StoreLife after(posix, volumes);
          if (run.plan.fault != sim::Fault::kill && !leftovers(after).empty()) return leftovers(after);
          const std::string found = after.names.displayName(volume, "a").value_or("none");
          if (swept.hadNames && after.names.displayName(volume, "b") != "bystander") return "lost another";
          if (const auto failure = after.names.setDisplayName(volume, "c", "next")) return failure->description();
          if (found == swept.after) return "";
          if (found != (swept.hadNames ? "old" : "none")) return "neither the old name nor the new one";
          const bool mayFail = isForgetting && run.plan.fault == sim::Fault::fail;
          return run.completed && !mayFail ? "acknowledged and lost" : "";
        });
    EXPECT_THAT(complaints, IsEmpty()) << swept.name;
  }
}

}  // namespace
}  // namespace quillmark
