#include "StoreMachine.h"
#include "platform/sim/Draws.h"
#include "platform/sim/FaultSweep.h"
#include "platform/sim/Simulation.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

using sim::FaultRun;
using sim::SimPosix;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using Moves = std::map<std::uint64_t, Xid>;

class VolumeProtectionStoreTest : public ::testing::Test {
 protected:
  VolumeProtectionStoreTest() { addVolumes(volumes); }

  sim::SimVolumes volumes;
  SimPosix disk;
  StoreLife life{disk, volumes};
};

TEST_F(VolumeProtectionStoreTest, saysWhetherItCanBeTrustedWhileSomebodyDeletes) {
  const auto guard = life.protection.lock();
  EXPECT_NO_THROW(life.protection.ensureLoaded()) << "without a wait for the guard";
}

TEST_F(VolumeProtectionStoreTest, keepsXidsInTheAttributeInTheirOrder) {
  for (const std::uint64_t xid : {std::uint64_t{9}, ~std::uint64_t{0}, std::uint64_t{7}}) life.protect(xid);
  EXPECT_EQ(life.attribute(protectionAttribute), R"({"v":1,"xids":[7,9,18446744073709551615]})");
  EXPECT_EQ(life.file("protected.json"), "none");
  EXPECT_EQ(life.protectedXids(), (Numbers{7, 9, ~std::uint64_t{0}}));
  for (const std::uint64_t xid : life.protectedXids()) life.unprotect(xid);
  EXPECT_EQ(life.attribute(protectionAttribute), "none") << "an empty set is no attribute";
}

TEST_F(VolumeProtectionStoreTest, fallsBackToItsFileAndGivesTheAttributeNothingBack) {
  life.protect(5);
  life.refuseAttributeChanges();
  life.protect(7);
  EXPECT_EQ(life.file("protected.json"), R"({"00112233-4455-6677-8899-aabbccddeeff":[7]})");
  EXPECT_EQ(life.log.entries().back(),
            (sim::SimPlatformLog::Entry{PlatformLogType::info, "com.harrowfern.quillmark.helper", "protection",
                                        "protection xattr not writable on /Volumes/Data (Read-only file system); "
                                        "using local store"}));
  const auto status = disk.lstat(life.paths.state("protected.json"));
  EXPECT_EQ(std::tuple(status->mode, status->uid, status->gid), std::tuple(0600U, 0U, 0U));
  EXPECT_EQ(disk.lstat(life.paths.stateDirectory)->mode, 0700U);
  life.allowAttributeChanges();
  life.unprotect(7);
  EXPECT_EQ(life.attribute(protectionAttribute), R"({"v":1,"xids":[5]})");
  EXPECT_EQ(life.file("protected.json"), "{}");
}

TEST_F(VolumeProtectionStoreTest, changesNothingForASnapshotThatIsGone) {
  const Error error = failureOf([&] { life.protection.setProtected(data, true, [] { return std::optional<Xid>(); }); });
  EXPECT_EQ(QuillmarkError::codeOf(error), QuillmarkErrorCode::snapshotNotFound);
  EXPECT_EQ(error.description(), "Snapshot disappeared before its protection state could be changed");
  EXPECT_EQ(life.attribute(protectionAttribute), "none");
}

TEST_F(VolumeProtectionStoreTest, holdsMoreThanTheAttributeHasRoomFor) {
  Numbers all;
  for (std::uint64_t i = 0; i < 500; ++i) all.insert(18'000'000'000'000'000'000U + i);
  for (const std::uint64_t xid : all) life.protect(xid);
  EXPECT_LE(life.attribute(protectionAttribute).size(), maxVolumeAttributeBytes);
  EXPECT_EQ(StoreLife(disk, volumes).protectedXids(), all);
}

struct Damage {
  const char* value;
  Numbers readAs;  // empty: not read at all
};
const Damage damages[] = {{R"({"v":1,"xids":[5]})", {5}},
                          {R"({"v":-99,"xids":[5,5,3],"more":{}})", {3, 5}},
                          {R"({"xids":[5]})", {}},
                          {R"({"v":"1","xids":[5]})", {}},
                          {R"({"v":1})", {}},
                          {R"({"v":1,"xids":null})", {}},
                          {R"({"v":1,"xids":{}})", {}},
                          {R"({"v":1,"xids":[5],"xids":[]})", {}},
                          {R"({"v":1,"xids":["5"]})", {}},
                          {R"({"v":1,"xids":[-5]})", {}},
                          {R"({"v":1,"xids":[5.5]})", {}},
                          {R"({"v":1,"xids":[9007199254740993.0]})", {}},
                          {R"({"v":1,"xids":[18446744073709551616]})", {}},
                          {R"({"v":1,"xids":[5]}x)", {}},
                          {R"({"v":1,"xids":[5)", {}},
                          {"\0\0\0", {}},
                          {" ", {}},
                          {"[]", {}},
                          {"rubbish", {}}};

TEST_F(VolumeProtectionStoreTest, neverTakesADamagedAttributeForAnEmptySet) {
  life.putAttribute(protectionAttribute, "");
  EXPECT_THAT(life.protectedXids(), IsEmpty());
  for (const auto& [value, readAs] : damages) {
    life.putAttribute(protectionAttribute, *value == '\0' ? std::string(3, '\0') : value);
    if (!readAs.empty()) {
      EXPECT_EQ(life.protectedXids(), readAs) << value;
      continue;
    }
    const auto guard = life.protection.lock();
    const std::string complaint = complaintOf([&] { static_cast<void>(guard->protectedXIDs(data)); });
    EXPECT_THAT(complaint, StartsWith("Protection xattr on /Volumes/Data is corrupt: ")) << value;
    const std::string before = life.attribute(protectionAttribute);
    guard->forgetDeleted(data, Xid{5});
    EXPECT_EQ(life.attribute(protectionAttribute), before);
  }
  EXPECT_THAT(complaintOf([&] { life.protect(8); }), StartsWith("Protection xattr on /Volumes/Data is corrupt: "));
  EXPECT_THAT(life.protectedXids(other), IsEmpty()) << "other volumes go on";
}

TEST_F(VolumeProtectionStoreTest, refusesForItsWholeLifeAFileItCouldNotRead) {
  const std::string volume = dataUuid.lower();
  for (const std::string& content : std::vector<std::string>{
           "", "rubbish", "[]", R"({")" + volume + R"(":5})", R"({")" + volume + R"(":[-1]})",
           R"({")" + volume + R"(":[5],")" + volume + R"(":[]})", R"({")" + volume + R"(":[18446744073709551616]})",
           std::string((std::size_t{16} << 20) + 1, ' ')}) {
    StoreLife next(disk, volumes);
    next.putFile("protected.json", content);
    const std::string complaint = complaintOf([&] { next.protection.ensureLoaded(); });
    EXPECT_THAT(complaint, StartsWith("Protection store exists but is unreadable: "));
    EXPECT_EQ(next.log.entries().back().message, complaint + "; snapshot deletion disabled");
    EXPECT_EQ(next.log.entries().back().type, PlatformLogType::fault);
    next.putFile("protected.json", "{}");
    EXPECT_EQ(complaintOf([&] { static_cast<void>(next.protection.lock()); }), complaint);
    EXPECT_EQ(complaintOf([&] { next.protect(7); }), complaint);
    EXPECT_EQ(complaintOf([&] { static_cast<void>(next.protectedXids()); }), complaint);
    EXPECT_EQ(complaintOf([&] { next.protection.migrateIdentities(data, {{5, Xid{7}}}); }), complaint);
  }
  StoreLife repaired(disk, volumes);
  repaired.putFile("protected.json", R"({"00112233-4455-6677-8899-AABBCCDDEEFF":[5],")" + volume + R"(":[7]})");
  EXPECT_EQ(repaired.protectedXids(), (Numbers{5, 7}));
}

TEST_F(VolumeProtectionStoreTest, tellsWhichCallOnTheAttributeFailed) {
  life.protect(5);
  const std::pair<std::uint64_t, const char*> cases[] = {
      {1, "read protection xattr size failed for /Volumes/Data: Input/output error"},
      {2, "read protection xattr failed for /Volumes/Data: Input/output error"}};
  for (const auto& [call, text] : cases) {
    disk.setPlan({.fault = sim::Fault::fail, .atCall = call, .only = sim::PosixCall::getxattr});
    EXPECT_EQ(complaintOf([&] { static_cast<void>(life.protectedXids()); }), text);
  }
  VolumeInfo replaced = data;
  replaced.uuid = otherUuid.lower();
  EXPECT_EQ(complaintOf([&] { static_cast<void>(life.protectedXids(replaced)); }),
            "read protection xattr size failed for /Volumes/Data: Stale file handle");
}

TEST_F(VolumeProtectionStoreTest, namesEachStepOfTheDurableWriteThatFailedAndThenRefusesEverything) {
  using enum sim::PosixCall;
  const std::tuple<sim::PosixCall, std::uint64_t, const char*> steps[] = {
      {open, 1, "create protection temp file"},     {write, 1, "write protection temp file"},
      {fchmod, 1, "chmod protection temp file"},    {fchown, 1, "chown protection temp file"},
      {fsync, 1, "fsync protection temp file"},     {rename, 1, "replace protection store"},
      {open, 2, "open protection store directory"}, {fsync, 2, "fsync protection store directory"}};
  life.refuseAttributeChanges();
  life.protect(3);
  for (const auto& [call, time, step] : steps) {
    StoreLife next(disk, volumes);
    next.refuseAttributeChanges();
    next.protection.ensureLoaded();
    disk.setPlan({.fault = sim::Fault::fail, .atCall = time, .only = call, .error = ENOSPC});
    const std::string complaint = complaintOf([&] { next.protect(5); });
    EXPECT_EQ(complaint, std::string("Protection store write failed: ") + step + " failed for " +
                             next.paths.state("protected.json") + ": No space left on device");
    EXPECT_EQ(leftovers(next), "");
    EXPECT_EQ(complaintOf([&] { static_cast<void>(next.protection.lock()); }), complaint);
    StoreLife after(disk, volumes);
    EXPECT_TRUE(after.protectedXids().contains(3));
    if (after.protectedXids().contains(5)) after.unprotect(5);
  }
  disk.setPlan({.fault = sim::Fault::fail, .atCall = 1, .only = write, .error = EINTR});
  EXPECT_TRUE(life.protect(5)) << "an interrupted write is repeated";
}

// Listings run under the lock, and a listing may find identities to move.
TEST_F(VolumeProtectionStoreTest, movesIdentitiesFoundByTheHolderOfTheLockBeforeAnybodyLooks) {
  life.protect(5);
  {
    const auto guard = life.protection.lock();
    life.migrate({{5, Xid{7}}});
    EXPECT_THAT(guard->protectedXIDs(data), ::testing::ElementsAre(Xid{7}));
  }
  EXPECT_FALSE(life.protection.setProtected(data, true, [&] {
    life.migrate({{7, Xid{9}}});
    return std::optional(Xid{9});
  }));
  EXPECT_EQ(life.attribute(protectionAttribute), R"({"v":1,"xids":[9]})");
  {
    const auto guard = life.protection.lock();
    life.migrate({{9, Xid{11}}});
    disk.setPlan({.fault = sim::Fault::fail, .atCall = 1, .only = sim::PosixCall::getxattr});
    EXPECT_THAT(complaintOf([&] { static_cast<void>(guard->protectedXIDs(data)); }), HasSubstr("Input/output error"));
  }
  EXPECT_EQ(life.protectedXids(), (Numbers{11})) << "one that failed isn't forgotten";
}

TEST_F(VolumeProtectionStoreTest, saysWhatItCouldNotForgetAndNeverFails) {
  life.protect(5);
  life.refuseAttributeChanges();
  const auto guard = life.protection.lock();
  guard->forgetDeleted(data, Xid{5});
  EXPECT_EQ(life.log.entries().back().message, "deleted snapshot's protection xattr entry could not be removed");
  life.putAttribute(protectionAttribute, "rubbish");
  guard->forgetDeleted(data, Xid{5});
  EXPECT_THAT(life.log.entries().back().message,
              StartsWith("deleted snapshot's protection xattr cleanup failed: Protection xattr on "));
}

// Goal:   nobody protects between a deleter's check and its deletion.
// Method: a deleter that takes its time, and somebody who protects meanwhile, under many orders.
TEST(VolumeProtectionStoreGuard, keepsOthersOutUntilTheDeleterIsDone) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    sim::Simulation simulation({.seed = seed});
    sim::Life& helper = simulation.startLife("helper");
    sim::SimVolumes volumes;
    addVolumes(volumes);
    sim::SimPlatform platform(helper, volumes);
    VolumeProtectionStore store(helper.dispatch(), platform.files(), helper.random(), platform.log(),
                                platform.attributes(), platform.paths());
    bool isDeleted = false, wasProtected = false;
    helper.spawn("deleter", [&] {
      const auto guard = store.lock();
      if (!guard->protectedXIDs(data).empty()) return;
      helper.delay(std::chrono::seconds(1));
      isDeleted = true;
      guard->forgetDeleted(data, Xid{5});
    });
    helper.spawn("protector", [&] {
      try {
        wasProtected = store.setProtected(data, true, [&] { return isDeleted ? std::nullopt : std::optional(Xid{5}); });
      } catch (const Error& error) {
        EXPECT_EQ(QuillmarkError::codeOf(error), QuillmarkErrorCode::snapshotNotFound);
      }
    });
    simulation.runFor(std::chrono::seconds(5));
    EXPECT_NE(isDeleted, wasProtected) << "seed " << seed;
  }
}

struct SweepCase {
  const char* name;
  Numbers before;  // 5 in the attribute, 6 in the file
  Numbers after;
  bool isAttributeWritable;
  bool mayStayProtected;  // the answer of the attribute isn't looked at
  void (*operation)(StoreLife&);
};

const Moves sweptMoves{{5, Xid{7}}, {6, Xid{8}}};

const SweepCase sweepCases[] = {
    {"protect", {5, 6}, {5, 6, 7}, true, false, [](StoreLife& life) { life.protect(7); }},
    {"protect in the file", {5, 6}, {5, 6, 7}, false, false, [](StoreLife& life) { life.protect(7); }},
    {"protect first of all", {}, {7}, false, false, [](StoreLife& life) { life.protect(7); }},
    {"unprotect", {5, 6}, {6}, true, true, [](StoreLife& life) { life.unprotect(5); }},
    {"unprotect in the file", {5, 6}, {5}, true, true, [](StoreLife& life) { life.unprotect(6); }},
    {"migrate", {5, 6}, {7, 8}, true, false, [](StoreLife& life) { life.migrate(sweptMoves); }},
    {"forget", {5, 6}, {6}, true, true, [](StoreLife& life) { life.forget(5); }},
    {"forget in the file", {5, 6}, {5}, true, true, [](StoreLife& life) { life.forget(6); }},
};

void prepareSweep(SimPosix& posix, sim::SimVolumes& volumes, const SweepCase& swept) {
  StoreLife life(posix, volumes);
  if (swept.before.contains(5)) life.protect(5);
  if (!swept.before.contains(6)) return;
  life.refuseAttributeChanges();
  life.protect(6);
}

// A failure of the file is the end of all deletions; any other one isn't.
void refuseAfterFailure(StoreLife& life, const Error& error) {
  const std::string refusal = complaintOf([&] { life.protection.ensureLoaded(); });
  const bool ofTheFile = error.description().starts_with("Protection store ");
  EXPECT_EQ(refusal, ofTheFile ? error.description() : "");
}

std::string judge(StoreLife& after, const SweepCase& swept, const FaultRun& run) {
  if (run.plan.fault != sim::Fault::kill) {
    if (const std::string left = leftovers(after); !left.empty()) return left;
  }
  // The next listing brings the identities again.
  if (std::string_view(swept.name) == "migrate") {
    const Numbers found = after.protectedXids();
    if (run.completed && run.plan.fault == sim::Fault::kill && found != swept.after) return "not moved";
    after.migrate(sweptMoves);
    return after.protectedXids() == swept.after ? "" : "lost by the move";
  }
  const Numbers found = after.protectedXids();
  if (found == swept.after) return "";
  if (found != swept.before) return "neither the old set nor the new one";
  const bool mayFail = swept.mayStayProtected && run.plan.fault == sim::Fault::fail;
  return run.completed && !mayFail ? "acknowledged and lost" : "";
}

// Goal:   protection is never lost: acknowledged it outlives a kill and a power cut, failed it is the old set or the new.
// Method: each operation with each of its calls, on files and attributes, going wrong; another life looks at the rest.
TEST(VolumeProtectionStoreFaults, neverLoseProtection) {
  sim::SimVolumes volumes;
  addVolumes(volumes);
  for (const SweepCase& swept : sweepCases) {
    const auto complaints = sim::forEachFault(
        {.errors = {EIO, ENOSPC, EROFS, EPERM, EMFILE, EINTR}},
        [&](SimPosix& posix) { prepareSweep(posix, volumes, swept); },
        [&](SimPosix& posix) {
          StoreLife life(posix, volumes);
          if (!swept.isAttributeWritable) life.refuseAttributeChanges();
          try {
            swept.operation(life);
          } catch (const Error& error) {
            refuseAfterFailure(life, error);
            throw;
          }
        },
        [&](SimPosix& posix, const FaultRun& run) {
          StoreLife after(posix, volumes);
          std::string complaint;
          const std::string thrown = complaintOf([&] { complaint = judge(after, swept, run); });
          return thrown == "" ? complaint : thrown;
        });
    EXPECT_THAT(complaints, IsEmpty()) << swept.name;
  }
}

Numbers moved(const Numbers& xids, const Moves& moves) {
  Numbers result;
  for (const std::uint64_t xid : xids) {
    const auto move = moves.find(xid);
    const bool isTarget =
        std::any_of(moves.begin(), moves.end(), [&](const auto& each) { return each.second.value == xid; });
    if (move == moves.end() || isTarget) result.insert(xid);
    if (move != moves.end()) result.insert(move->second.value);
  }
  return result;
}

// Goal:   whatever is done in whatever order, the store shows what a plain set would.
// Method: random operations on two volumes, the attribute now writable and now not, restarts and power cuts in between.
TEST(VolumeProtectionStoreModel, agreesWithAPlainSet) {
  sim::SimVolumes volumes;
  addVolumes(volumes);
  for (std::uint64_t seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    sim::Draws draws(seed);
    auto disk = std::make_unique<SimPosix>();
    auto life = std::make_unique<StoreLife>(*disk, volumes);
    std::map<std::string, Numbers> model;
    bool isWritable = true;
    for (int step = 0; step < 120; ++step) {
      VolumeInfo volume = draws.chance(70) ? data : other;
      Numbers& expected = model[volume.name];
      if (draws.chance(50)) volume.uuid = Uuid::parse(volume.uuid)->upper();
      const bool sticks = !isWritable && volume.name == "Data";
      const std::uint64_t xid = draws.below(8);
      const bool inAttribute = life->protection.readProtectionAttribute(volume).contains(Xid{xid});
      switch (draws.below(7)) {
        case 0:
        case 1: ASSERT_EQ(life->protect(xid, volume), expected.insert(xid).second); break;
        case 2: {
          ASSERT_EQ(life->unprotect(xid, volume), expected.contains(xid));
          if (!(sticks && inAttribute)) expected.erase(xid);
          break;
        }
        case 3: {
          life->forget(xid, volume);
          if (!(sticks && inAttribute)) expected.erase(xid);
          break;
        }
        case 4: {
          // At times two that cross or follow each other.
          Moves moves{{xid, Xid{draws.below(8)}}};
          if (draws.chance(50)) moves.emplace(draws.chance(50) ? moves.at(xid).value : draws.below(8), Xid{xid});
          Numbers left;
          if (sticks) {
            for (const Xid kept : life->protection.readProtectionAttribute(volume)) left.insert(kept.value);
          }
          life->migrate(moves, volume);
          expected = moved(expected, moves);
          expected.merge(left);
          break;
        }
        case 5: isWritable = !isWritable; break;
        default: {
          auto next = draws.chance(50) ? disk->copyForSuccessor() : disk->powerCut(draws.next());
          life.reset();
          disk = std::move(next);
          life = std::make_unique<StoreLife>(*disk, volumes);
        }
      }
      life->attributes.refuseChanges(dataUuid, isWritable ? 0 : EROFS);
      ASSERT_EQ(life->protectedXids(volume), expected) << "step " << step;
    }
  }
}

}  // namespace
}  // namespace quillmark
