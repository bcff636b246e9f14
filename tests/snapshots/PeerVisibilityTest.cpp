#include <random>

#include "SnapshotMachine.h"
#include "snapshots/HomeDirectories.h"
#include "snapshots/PeerVisibility.h"

namespace quillmark {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class PeerVisibilityTest : public testing::Test {
 protected:
  PeerVisibilityTest() : place_(machine_.paths.userMountRoot + "/people") {
    Uuid uuid = machine_.uuid;
    uuid.bytes[0] = 7;
    machine_.volumes.add(sim::makeSimVolume(uuid, "people", place_, "disk2s7"));
    volume_.mountPoint = place_;
    volume_.uuid = uuid.lower();
  }
  // A person whose home on the volume belongs to the owner.
  void person(std::uint32_t uid, const std::string& name, std::uint32_t owner) {
    const std::string home = place_ + "/" + name;
    machine_.sim.users().add(uid, name, home);
    createDirectories(machine_.posix, home, 0755);
    ASSERT_TRUE(machine_.posix.chown(home, owner, 0));
  }
  std::vector<std::string> hidden(std::optional<std::uint32_t> uid) {
    std::vector<std::string> prefixes;
    machine_.run([&] { prefixes = visibility_.hiddenPrefixes(uid, place_); });
    return prefixes;
  }
  std::vector<std::string> filtered(std::optional<std::uint32_t> uid, std::vector<std::string> paths,
                                    std::optional<std::string> volumeUUID = std::nullopt) {
    machine_.run([&] {
      paths = visibility_.filterForPeer(uid, std::move(paths), volumeUUID.value_or(volume_.uuid),
                                        [](const std::string& path) { return path; });
    });
    return paths;
  }

  SnapshotMachine machine_;
  const std::string place_;
  VolumeInfo volume_;
  HomeDirectories homes_{machine_.life.dispatch(), machine_.sim.users(), machine_.calls};
  PeerVisibility visibility_{machine_.life.dispatch(), machine_.posix, homes_, machine_.apfs};
};

TEST_F(PeerVisibilityTest, hidesOtherPeoplesHomesByTheirPresentOwner) {
  person(1001, "ida", 1001);
  person(1002, "zoe", 1002);
  person(1003, "handed-on", 1001);
  person(1004, "of-root", 0);
  EXPECT_THAT(hidden(1001), ElementsAre("/zoe"));
  EXPECT_THAT(hidden(1002), UnorderedElementsAre("/ida", "/handed-on"));
  EXPECT_THAT(hidden(0), IsEmpty());
  EXPECT_THAT(hidden(std::nullopt), IsEmpty());

  ASSERT_TRUE(machine_.posix.chown(place_ + "/zoe", 1001, 0));
  machine_.simulation.runFor(std::chrono::seconds(59));
  EXPECT_THAT(hidden(1001), ElementsAre("/zoe")) << "what was worked out stands for a minute";
  machine_.simulation.runFor(std::chrono::seconds(1));
  EXPECT_THAT(hidden(1001), IsEmpty());

  ASSERT_TRUE(machine_.posix.chown(place_ + "/zoe", 1002, 0));
  machine_.simulation.jumpWallClock(Seconds(-3600));
  EXPECT_THAT(hidden(1001), ElementsAre("/zoe")) << "the clock was set back";
}

TEST_F(PeerVisibilityTest, filtersNothingWhereItCanNotKnow) {
  const std::vector<std::string> all{"/zoe/letter", "/x"};
  person(1001, "ida", 1001);
  EXPECT_EQ(filtered(1001, all, "no volume at all"), all) << "nobody else is there: the volume isn't even looked for";
  person(1002, "zoe", 1002);
  machine_.simulation.runFor(std::chrono::minutes(1));
  EXPECT_EQ(filtered(1001, all, "ffffffff-0000-4000-8000-000000000000"), all);
  EXPECT_EQ(filtered(std::nullopt, all), all);
  EXPECT_EQ(filtered(0, all), all);
  EXPECT_THAT(filtered(1001, all), ElementsAre("/x"));
}

// Goal:   none of what passes lies in another user's home, all that doesn't passes, in its order.
// Method: random homes with random owners, random paths among them that share their text and more.
TEST_F(PeerVisibilityTest, passesExactlyWhatLiesInNoOtherHome) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 chance(seed);
  const auto draw = [&](unsigned end) { return chance() % end; };
  std::map<std::string, std::uint32_t> owners;
  for (const char* name : {"a", "ab", "abc", "b", "b b", "ab.c"}) {
    owners[name] = draw(4) == 0 ? 0 : 1001 + draw(3);
    person(1001 + static_cast<std::uint32_t>(owners.size()), name, owners[name]);
  }
  for (int round = 0; round < 200; ++round) {
    std::vector<std::string> paths, expected;
    const std::optional<std::uint32_t> peer = 1001 + draw(3);
    for (unsigned i = draw(40); i-- > 0;) {
      std::string first(1 + draw(4), ' ');
      for (char& letter : first) letter = "ab c."[draw(5)];
      const std::string path = "/" + first + (draw(2) ? "/" + std::to_string(draw(9)) : "");
      paths.push_back(path);
      const auto owner = owners.find(first);
      if (owner == owners.end() || owner->second == *peer || owner->second == 0) expected.push_back(path);
    }
    ASSERT_EQ(filtered(peer, paths), expected);
  }
}

}  // namespace
}  // namespace quillmark
