#include "StoreLife.h"

namespace quillmark {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string store = "volume-clocks.json";
const Date monday = Date::fromReference(794'000'000.5), tuesday = monday + Seconds(86400);

TEST(VolumeClockPersistence, remembersTheFirstSightingAndTheNotice) {
  sim::SimPosix files;
  prepareMachine(files);
  {
    StoreLife life(files);
    EXPECT_EQ(life.clocks.firstSeen(volumeA), std::nullopt);
    EXPECT_FALSE(life.clocks.discoveryPending(volumeA));
    life.clocks.markDiscoveryNoticeSent(volumeA);  // never seen: nothing to mark
    EXPECT_EQ(life.text(store), "[none]");
    EXPECT_EQ(life.clocks.noteSeen(volumeA, monday), monday);
    EXPECT_EQ(life.clocks.noteSeen(VolumeUuid("aaaaaaaa-0000-4000-8000-000000000001"), tuesday), monday);
    EXPECT_EQ(life.text(store),
              R"({"aaaaaaaa-0000-4000-8000-000000000001":{"firstSeenAt":7.940000005E8,"discoveryNoticeSent":false}})");
    EXPECT_EQ(life.attributes(life.paths.state(store)), "600 0:0");
    life.clocks.markDiscoveryNoticeSent(volumeA);
  }
  StoreLife next(files);
  EXPECT_EQ(next.clocks.noteSeen(volumeB, tuesday), tuesday);
  EXPECT_FALSE(next.clocks.discoveryPending(volumeA));
  EXPECT_TRUE(next.clocks.discoveryPending(volumeB));
  EXPECT_EQ(next.clocks.firstSeen(volumeA), monday);
}

TEST(VolumeClockPersistence, takesAFileThatItCannotUnderstandForEmpty) {
  for (const std::string text : {"", "[]", R"({"a":{"firstSeenAt":1}})", R"({"a":{"discoveryNoticeSent":true}})"}) {
    sim::SimPosix files;
    prepareMachine(files);
    StoreLife(files).put(store, text);
    StoreLife life(files);
    EXPECT_EQ(life.clocks.firstSeen(VolumeUuid("a")), std::nullopt);
    EXPECT_EQ(life.clocks.noteSeen(volumeA, tuesday), tuesday);
    EXPECT_EQ(StoreLife(files).clocks.firstSeen(volumeA), tuesday);
    EXPECT_THAT(life.log.entries(), IsEmpty());
  }
}

TEST(VolumeClockPersistence, leavesTheDirectoryAlone) {
  sim::SimPosix files;
  prepareMachine(files, MachineState::fresh);
  StoreLife life(files);
  EXPECT_EQ(life.clocks.noteSeen(volumeA, monday), monday);
  EXPECT_EQ(life.attributes(life.paths.stateDirectory), "[none]");
  EXPECT_THAT(life.log.entries(),
              ElementsAre(testing::FieldsAre(PlatformLogType::error, "com.harrowfern.quillmark.helper", "volume-clocks",
                                             testing::StartsWith("volume clock store write failed: "))));
  EXPECT_EQ(life.clocks.noteSeen(volumeA, tuesday), monday);
  EXPECT_TRUE(life.clocks.discoveryPending(volumeA));
}

// Goal:   a sighting whose writing was not complained of outlasts everything, and no failure makes a volume look older.
// Method: every call of a load and two writes fails, ends the process or ends the power; the next process looks.
TEST(VolumeClockPersistence, keepsSightingsWhateverFails) {
  const auto prepare = [](sim::SimPosix& files) {
    prepareMachine(files);
    (void)StoreLife(files).clocks.noteSeen(volumeA, monday);
  };
  const auto note = [](sim::SimPosix& files) {
    StoreLife life(files);
    const Date seen = life.clocks.noteSeen(volumeA, tuesday);
    life.clocks.markDiscoveryNoticeSent(volumeA);
    EXPECT_FALSE(life.clocks.discoveryPending(volumeA));
    EXPECT_EQ(life.clocks.noteSeen(volumeB, tuesday), tuesday);
    EXPECT_EQ(life.clocks.firstSeen(volumeA), seen);
    if (seen != monday) throw Error("test", 1, "the file could not be read");
    // What failed first is saved with what follows.
    if (life.log.entries().size() > 1 || life.text(store).find("bbbb") == std::string::npos) {
      throw Error("test", 1, "not saved");
    }
    if (!life.log.entries().empty()) throw Error("test", 1, "perhaps not synced");
  };
  const auto look = [](sim::SimPosix& after, const sim::FaultRun& run) -> std::string {
    StoreLife next(after);
    const auto seenA = next.clocks.firstSeen(volumeA), seenB = next.clocks.firstSeen(volumeB);
    if (!seenA || (seenA != monday && seenA != tuesday)) return "the first sighting is lost";
    if (run.plan.fault == sim::Fault::kill && seenA != monday) return "the first sighting moved";
    if (seenB && seenB != tuesday) return "a sighting that never was";
    if (run.completed && (!seenB || next.clocks.discoveryPending(volumeA))) return "lost";
    if (run.plan.fault != sim::Fault::kill && next.names().size() != 1) return "a temporary file stays";
    return "";
  };
  EXPECT_THAT(sim::forEachFault(everyFailure, prepare, note, look), IsEmpty());
}

}  // namespace
}  // namespace quillmark
