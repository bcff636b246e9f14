#include "StoreMachine.h"
#include "platform/sim/Draws.h"
#include "platform/sim/FaultSweep.h"

namespace quillmark {
namespace {

using sim::FaultRun;
using sim::SimPosix;
using ::testing::IsEmpty;
using Tags = std::map<std::uint64_t, std::string>;

class SnapshotTagStoreTest : public ::testing::Test {
 protected:
  SnapshotTagStoreTest() { addVolumes(volumes); }

  sim::SimVolumes volumes;
  SimPosix disk;
  StoreLife life{disk, volumes};
};

TEST_F(SnapshotTagStoreTest, keepsTagsInTheAttributeAndPreservesWhatItDoesNotUnderstandThere) {
  life.putAttribute(tagAttribute, R"({"x":"theirs","18446744073709551616":"too large","07":"no XID","-1":"neither"})");
  life.tag(18446744073709551615U, "before the \"trip\"\n🧳");
  life.tag(7, "");
  EXPECT_EQ(life.shownTags(), (Tags{{7, ""}, {18446744073709551615U, "before the \"trip\"\n🧳"}}));
  EXPECT_EQ(life.file("snapshot-tags.json"), "none");
  life.tag(7, std::nullopt);
  life.tag(18446744073709551615U, std::nullopt);
  life.tag(8, std::nullopt);
  EXPECT_THAT(life.shownTags(), IsEmpty());
  EXPECT_THAT(life.attribute(tagAttribute), ::testing::HasSubstr(R"("x":"theirs")"));
  life.putAttribute(tagAttribute, R"({"7":"only"})");
  life.tag(7, std::nullopt);
  EXPECT_EQ(life.attribute(tagAttribute), "none") << "an empty map is no attribute";
}

TEST_F(SnapshotTagStoreTest, fallsBackToItsFileUnlessTheAttributeHoldsTheTagAlready) {
  life.tag(5, "old");
  life.refuseAttributeChanges();
  life.tag(7, "here");
  EXPECT_EQ(life.file("snapshot-tags.json"), R"({"00112233-4455-6677-8899-aabbccddeeff":{"7":"here"}})");
  const auto status = disk.lstat(life.paths.state("snapshot-tags.json"));
  EXPECT_EQ(std::tuple(status->mode, status->uid, status->gid), std::tuple(0600U, 0U, 0U));
  EXPECT_EQ(disk.lstat(life.paths.stateDirectory)->mode, 0700U);
  for (const std::optional<std::string>& tag : {std::optional<std::string>("new"), std::optional<std::string>()}) {
    EXPECT_EQ(complaintOf([&] { life.tag(5, tag); }),
              "Could not update the snapshot-tag xattr on /Volumes/Data: Read-only file system");
  }
  EXPECT_EQ(life.shownTags(), (Tags{{5, "old"}, {7, "here"}}));
  life.allowAttributeChanges();
  life.tag(7, "there");
  EXPECT_EQ(life.file("snapshot-tags.json"), "{}");
}

TEST_F(SnapshotTagStoreTest, showsTheOldTagAfterAWriteOfItsFileThatFailed) {
  life.refuseAttributeChanges();
  life.tag(7, "old");
  disk.setPlan({.fault = sim::Fault::fail, .atCall = 1, .only = sim::PosixCall::rename, .error = ENOSPC});
  EXPECT_THAT(complaintOf([&] { life.tag(7, "new"); }), ::testing::HasSubstr("No space left on device"));
  EXPECT_EQ(life.shownTags(), (Tags{{7, "old"}}));
  life.tag(7, "new");
  EXPECT_EQ(life.shownTags(), (Tags{{7, "new"}}));
}

TEST_F(SnapshotTagStoreTest, takesEightKibibytesAndMovesWhatTheAttributeHasNoRoomFor) {
  life.tag(5, "short");
  life.tag(7, "stays");
  const std::string longest(8192, 't');
  life.tag(5, longest);
  EXPECT_EQ(life.attribute(tagAttribute), R"({"7":"stays"})");
  EXPECT_EQ(StoreLife(disk, volumes).shownTags(), (Tags{{5, longest}, {7, "stays"}}));
  EXPECT_EQ(complaintOf([&] { life.tag(5, longest + "t"); }), "Tag is too large (8193 bytes; limit 8192).");
  life.tag(5, "short again");
  EXPECT_EQ(life.file("snapshot-tags.json"), "{}");
  EXPECT_EQ(life.shownTags(), (Tags{{5, "short again"}, {7, "stays"}}));
}

TEST_F(SnapshotTagStoreTest, changesNothingForASnapshotThatIsGone) {
  EXPECT_EQ(complaintOf([&] { (void)life.tags.setTag(data, "tag", [] { return std::optional<Xid>(); }); }),
            "Snapshot disappeared before its tag could be changed");
  EXPECT_EQ(life.attribute(tagAttribute), "none");
}

TEST_F(SnapshotTagStoreTest, showsWhatItHasBesideADamagedAttributeAndNeverWritesOverIt) {
  life.refuseAttributeChanges();
  life.tag(7, "local");
  life.allowAttributeChanges();
  for (const char* damaged : {"", "rubbish", "[]", R"({"5":1})", R"({"5":"a","5":"b"})", R"({"5":"a")"}) {
    life.putAttribute(tagAttribute, damaged);
    EXPECT_EQ(life.shownTags(), (Tags{{7, "local"}})) << damaged;
    EXPECT_NE(complaintOf([&] { life.tag(5, "new"); }), "") << damaged;
    life.tags.forgetDeleted(data, Xid{5});
    EXPECT_EQ(life.attribute(tagAttribute), damaged);
  }
  VolumeInfo replaced = data;
  replaced.uuid = otherUuid.upper();
  EXPECT_EQ(complaintOf([&] { life.tag(5, "new", replaced); }),
            "Could not read snapshot-tag xattr on /Volumes/Data: Stale file handle");
}

TEST_F(SnapshotTagStoreTest, readsAFileThatCouldNotBeReadAgainWhenItIsRepaired) {
  life.putAttribute(tagAttribute, R"({"5":"kept"})");
  for (const char* damaged : {"", "rubbish", "[]", R"({"00112233-4455-6677-8899-aabbccddeeff":{"7":7}})",
                              R"({"00112233-4455-6677-8899-aabbccddeeff":{"7":"a","7":"b"}})"}) {
    life.putFile("snapshot-tags.json", damaged);
    EXPECT_NE(complaintOf([&] { static_cast<void>(life.shownTags()); }), "") << damaged;
    EXPECT_NE(complaintOf([&] { life.tag(5, "new"); }), "") << damaged;
    life.tags.forgetDeleted(data, Xid{9});
    EXPECT_EQ(life.file("snapshot-tags.json"), damaged);
  }
  life.putFile("snapshot-tags.json", R"({"00112233-4455-6677-8899-AABBCCDDEEFF":{"5":"shadowed","7":"seven"}})");
  EXPECT_EQ(life.shownTags(), (Tags{{5, "kept"}, {7, "seven"}}));
  life.tags.forgetDeleted(data, Xid{5});
  life.tags.forgetDeleted(data, Xid{7});
  EXPECT_THAT(life.shownTags(), IsEmpty());
  EXPECT_EQ(life.file("snapshot-tags.json"), "{}");
}

const std::string outgrown(8192, 'o');
const Tags sweptBefore{{5, "attribute"}, {6, "file"}, {9, "bystander"}};

void prepareSweep(SimPosix& posix, sim::SimVolumes& volumes) {
  StoreLife life(posix, volumes);
  life.tag(5, "attribute");
  life.tag(9, "bystander");
  life.refuseAttributeChanges();
  life.tag(6, "file");
}

struct SweepCase {
  const char* name;
  std::uint64_t xid;
  std::optional<std::string> tag;
  bool isAttributeWritable = true;
};

const SweepCase sweepCases[] = {
    {"a new tag", 7, "new"},
    {"a new tag in the file", 7, "new", false},
    {"another tag", 5, "new"},
    {"from the file to the attribute", 6, "new"},
    {"from the attribute to the file", 5, outgrown},
    {"no tag", 5, std::nullopt},
    {"no tag in the file", 6, std::nullopt},
};

// Goal:   a tag is never lost or torn: acknowledged it outlives a kill and a power cut, failed it is the old or the new.
// Method: each operation with each of its calls, on files and attributes, going wrong; another life looks at the rest.
TEST(SnapshotTagStoreFaults, neverLoseATag) {
  sim::SimVolumes volumes;
  addVolumes(volumes);
  for (const SweepCase& swept : sweepCases) {
    Tags expected = sweptBefore;
    swept.tag ? void(expected[swept.xid] = *swept.tag) : void(expected.erase(swept.xid));
    const auto complaints = sim::forEachFault(
        {.errors = {EIO, ENOSPC, EROFS}}, [&](SimPosix& posix) { prepareSweep(posix, volumes); },
        [&](SimPosix& posix) {
          StoreLife life(posix, volumes);
          if (!swept.isAttributeWritable) life.refuseAttributeChanges();
          life.tag(swept.xid, swept.tag);
        },
        [&](SimPosix& posix, const FaultRun& run) -> std::string {
          StoreLife after(posix, volumes);
          if (run.plan.fault != sim::Fault::kill && !leftovers(after).empty()) return leftovers(after);
          Tags found;
          const std::string thrown = complaintOf([&] { found = after.shownTags(); });
          if (thrown != "") return thrown;
          if (found == expected) return "";
          if (found != sweptBefore) return "neither the old tags nor the new ones";
          return run.completed ? "acknowledged and lost" : "";
        });
    EXPECT_THAT(complaints, IsEmpty()) << swept.name;
  }
}

TEST(SnapshotTagStoreFaults, forgetNeverFailsAndTouchesNoOther) {
  sim::SimVolumes volumes;
  addVolumes(volumes);
  for (const std::uint64_t xid : {std::uint64_t{5}, std::uint64_t{6}}) {
    const auto complaints = sim::forEachFault(
        {}, [&](SimPosix& posix) { prepareSweep(posix, volumes); },
        [&](SimPosix& posix) { StoreLife(posix, volumes).tags.forgetDeleted(data, Xid{xid}); },
        [&](SimPosix& posix, const FaultRun& run) -> std::string {
          if (run.plan.fault == sim::Fault::fail && !run.completed) return "threw";
          Tags found = StoreLife(posix, volumes).shownTags(), rest = sweptBefore;
          if (run.completed && run.plan.fault == sim::Fault::kill && found.contains(xid)) return "still there";
          found.erase(xid);
          rest.erase(xid);
          return found == rest ? "" : "lost another";
        });
    EXPECT_THAT(complaints, IsEmpty()) << xid;
  }
}

// Goal:   whatever is done in whatever order, the store shows what a plain map would.
// Method: random operations, the attribute now writable and now not, restarts and power cuts in between.
TEST(SnapshotTagStoreModel, agreesWithAPlainMap) {
  sim::SimVolumes volumes;
  addVolumes(volumes);
  for (std::uint64_t seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    sim::Draws draws(seed);
    auto disk = std::make_unique<SimPosix>();
    auto life = std::make_unique<StoreLife>(*disk, volumes);
    Tags model;
    bool isWritable = true;
    for (int step = 0; step < 120; ++step) {
      const std::uint64_t xid = draws.below(5);
      const std::optional<std::string> tag =
          draws.chance(70)
              ? std::optional(std::string(draws.chance(20) ? 5000 : 3, static_cast<char>('a' + draws.below(26))))
              : std::nullopt;
      const bool isHeld = life->attribute(tagAttribute).find("\"" + std::to_string(xid) + "\"") != std::string::npos;
      switch (draws.below(6)) {
        case 0:
        case 1:
        case 2: {
          const bool isRefused = complaintOf([&] { life->tag(xid, tag); }) != "";
          ASSERT_EQ(isRefused, isHeld && !isWritable);
          if (isRefused) break;
          tag ? void(model[xid] = *tag) : void(model.erase(xid));
          break;
        }
        case 3: {
          life->tags.forgetDeleted(data, Xid{xid});
          if (isWritable || !isHeld) model.erase(xid);
          break;
        }
        case 4: isWritable = !isWritable; break;
        default: {
          auto next = draws.chance(50) ? disk->copyForSuccessor() : disk->powerCut(draws.next());
          life.reset();
          disk = std::move(next);
          life = std::make_unique<StoreLife>(*disk, volumes);
        }
      }
      life->attributes.refuseChanges(dataUuid, isWritable ? 0 : EROFS);
      ASSERT_EQ(life->shownTags(), model) << "step " << step;
    }
  }
}

}  // namespace
}  // namespace quillmark
