#include "SnapshotMachine.h"
#include "snapshots/HomeDirectories.h"

namespace quillmark {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class HomeDirectoriesTest : public testing::Test {
 protected:
  // Volumes at /home and /srv/media beside the one that everything else lies on.
  HomeDirectoriesTest() {
    for (const char* place : {"/home", "/srv/media"}) {
      Uuid uuid = machine_.uuid;
      uuid.bytes[0] = static_cast<std::uint8_t>(place[1]);
      machine_.volumes.add(sim::makeSimVolume(uuid, place, place, std::string("disk2") + place[1]));
    }
  }
  [[nodiscard]] std::vector<std::string> paths() {
    std::vector<std::string> found;
    for (const HomeDirectory& home : homes_.all(now_)) found.push_back(home.path);
    return found;
  }

  SnapshotMachine machine_;
  sim::SimUsers& users_ = machine_.sim.users();
  HomeDirectories homes_{machine_.life.dispatch(), users_, machine_.calls};
  Date now_ = Date::fromReference(1000);
};

// Goal: who is listed, by the user ID, what stands in the database, and where that leads.
TEST_F(HomeDirectoriesTest, listsTheHomesOfPeopleAlone) {
  struct Case {
    std::uint32_t uid;
    const char* written;
    const char* leadsTo;  // null: nowhere
    bool isListed;
  };
  constexpr Case cases[] = {
      {999, "/home/service", "/home/service", false},
      {1000, "/home/first", "/home/first", true},
      {60000, "/home/last", "/home/last", true},
      {60001, "/home/beyond", "/home/beyond", false},
      {4294967294, "/home/nobody", "/home/nobody", false},
      {4294967295, "/home/none", "/home/none", false},
      {1001, "home/relative", "/home/relative", false},
      {1002, "", "/home/empty", false},
      {1003, "/nonexistent", "/nonexistent", false},
      {1004, "//var/./empty/", "/var/empty", false},
      {1005, "/home/../", "/", false},
      {1006, "/home/gone", nullptr, false},
      {1007, "/home/link", "/srv/people/link", true},
      {1008, "/home/linked-to-nothing", "/dev/null", false},
      {1009, "/home//untidy/.//", "/home/untidy", true},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.written);
    sim::SimUsers users;
    users.take(0);
    users.add(one.uid, "ida", "/nonexistent");
    users.take(one.uid);
    users.add(one.uid, "ida", one.written);
    users.lead(one.written, "");
    const std::string tidy = one.uid == 1009 ? "/home/untidy" : one.written;
    if (one.leadsTo) users.lead(tidy, one.leadsTo);
    HomeDirectories homes(machine_.life.dispatch(), users, machine_.calls);
    const auto found = homes.all(now_);
    ASSERT_EQ(found.size(), one.isListed ? 1u : 0u);
    if (one.isListed) {
      EXPECT_EQ(found[0].path, one.leadsTo);
    }
  }
}

TEST_F(HomeDirectoriesTest, tellsWhereOnWhichVolumeEachHomeLies) {
  users_.add(1002, "zoe", "/home/zoe");
  users_.add(1001, "ida", "/root-volume/ida");
  users_.add(1003, "media", "/srv/media");
  users_.add(1004, "shares zoe's", "/home/zoe");
  users_.add(1005, "not below /home", "/homeless");
  EXPECT_THAT(homes_.all(now_), ElementsAre(HomeDirectory{1002, "zoe", "/home/zoe", "/home", "/zoe"},
                                            HomeDirectory{1005, "not below /home", "/homeless", "/", "/homeless"},
                                            HomeDirectory{1001, "ida", "/root-volume/ida", "/", "/root-volume/ida"},
                                            HomeDirectory{1003, "media", "/srv/media", "/srv/media", "/"}));
  EXPECT_THAT(homes_.relativePaths("/home", now_), ElementsAre("/zoe"));
  EXPECT_THAT(homes_.paths("/home", now_), ElementsAre("/home/zoe"));
  EXPECT_THAT(homes_.relativePaths("/srv/media", now_), ElementsAre("/"));
  EXPECT_THAT(homes_.relativePaths("/", now_), ElementsAre("/homeless", "/root-volume/ida"));
  EXPECT_EQ(homes_.paths("/System/Volumes/Data", now_), homes_.paths("/", now_)) << "the same place";
  EXPECT_THAT(homes_.paths("/elsewhere", now_), IsEmpty());
}

TEST_F(HomeDirectoriesTest, aHomeThatCanNotBePlacedKeepsTheNextUserFromItAllTheSame) {
  users_.add(1001, "ida", "/home/shared");
  users_.add(1002, "zoe", "/home/shared");
  machine_.volumes.failNext(sim::SimCall::statfs, EIO);
  EXPECT_THAT(paths(), IsEmpty());
}

TEST_F(HomeDirectoriesTest, readsTheDatabaseOnceAMinuteAndOutsideItsLock) {
  int readings = 0;
  users_.watchReading([&] {
    if (++readings > 1) return;
    EXPECT_THAT(paths(), ElementsAre("/home/ida")) << "another reader meanwhile";
  });
  users_.add(1001, "ida", "/home/ida");
  EXPECT_THAT(paths(), ElementsAre("/home/ida"));
  EXPECT_EQ(readings, 2) << "two at once both read";
  users_.add(1002, "zoe", "/home/zoe");
  now_ = now_ + Seconds(59.9);
  EXPECT_THAT(paths(), ElementsAre("/home/ida"));
  now_ = now_ + Seconds(0.1);
  EXPECT_THAT(paths(), ElementsAre("/home/ida", "/home/zoe"));
  users_.take(1002);
  now_ = now_ - Seconds(3600);
  EXPECT_THAT(paths(), ElementsAre("/home/ida")) << "the clock was set back";
  EXPECT_EQ(readings, 4);
}

}  // namespace
}  // namespace quillmark
