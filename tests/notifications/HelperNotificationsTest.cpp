#include <gtest/gtest.h>

#include "NoticeLife.h"
#include "platform/sim/FaultSweep.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

const std::vector<std::string> silence;
const std::vector<std::string> everywhere{"push low", "mail low"};

TEST(HelperNotifications, holdAKeyBackUntilItsCooldownIsOver) {
  struct Case {
    std::optional<double> cooldown;
    std::chrono::seconds within, after;
  };
  for (const auto& [cooldown, within, after] :
       std::initializer_list<Case>{{std::nullopt, 1799s, 1800s}, {60.0, 59s, 60s}, {21600.0, 21599s, 21600s}}) {
    sim::SimPosix files;
    prepareMachine(files);
    NoticeLife life(files);
    EXPECT_EQ(life.toldByPosting("low", "key", cooldown), everywhere);
    life.simulation.runFor(within);
    EXPECT_EQ(life.toldByPosting("low", "key", cooldown), silence) << within.count();
    EXPECT_EQ(life.toldByPosting("low", "another", cooldown), everywhere);
    life.simulation.runFor(after - within);
    EXPECT_EQ(life.toldByPosting("low", "key", cooldown), everywhere) << after.count();
    EXPECT_THAT(life.logged(), SizeIs(3)) << "what is held back isn't logged either";
  }
}

TEST(HelperNotifications, goOutEachTimeWithoutAKeyOrAsADelivery) {
  sim::SimPosix files;
  prepareMachine(files);
  NoticeLife life(files);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(life.toldByPosting("low", std::nullopt), everywhere);
  EXPECT_EQ(life.stateText(), "[none]");
  for (int i = 0; i < 2; ++i) life.run([&] { life.notices.deliver(life.notice("low", "key")); });
  EXPECT_THAT(life.told, SizeIs(6));
  EXPECT_FALSE(life.isActive("key")) << "only a post begins a condition";
}

TEST(HelperNotifications, announceAtOnceWhatComesBackAfterItsEnd) {
  sim::SimPosix files;
  prepareMachine(files);
  NoticeLife life(files);
  EXPECT_EQ(life.toldByPosting("low", "key"), everywhere);
  life.run([&] { life.notices.resolve("key", "Free space recovered", "Data is well."); });
  EXPECT_FALSE(life.isActive("key"));
  EXPECT_EQ(life.stateText(), R"({"lastPostedByKey":{}})");
  EXPECT_EQ(files.lstat(life.paths.state("notifications-state.json"))->mode, 0600U);
  HelperNotification expected;
  expected.id = life.logged().back().id;
  expected.timestamp = life.life.clock().now();
  expected.kind = HelperNotification::Kind::resolve;
  expected.title = "Free space recovered";
  expected.message = "Data is well.";
  expected.category = NotificationCategory::success;
  expected.dedupeKey = "key";
  EXPECT_EQ(life.logged().back(), expected);
  EXPECT_THAT(life.told, ElementsAre("push low", "mail low", "push Free space recovered", "mail Free space recovered"));
  life.simulation.runFor(1s);
  EXPECT_EQ(life.toldByPosting("low", "key"), everywhere);
}

TEST(HelperNotifications, forgetAKeyThatNobodyTouchedForAWeek) {
  sim::SimPosix files;
  prepareMachine(files);
  NoticeLife life(files);
  (void)life.toldByPosting("low", "old");
  life.simulation.runFor(604'800s);
  (void)life.toldByPosting("low", "other");
  EXPECT_TRUE(life.isActive("old")) << "exactly a week is not longer than a week";
  life.simulation.runFor(1s);
  EXPECT_TRUE(life.isActive("old")) << "nothing was saved since";
  (void)life.toldByPosting("low", "third");
  EXPECT_FALSE(life.isActive("old"));
  EXPECT_EQ(life.stateText().find("old"), std::string::npos);
}

TEST(HelperNotifications, goOnToClientsAndEmailWhenTheLogIsShut) {
  sim::SimPosix files;
  prepareMachine(files);
  NoticeLife life(files);
  ASSERT_TRUE(files.mkdir(notificationLogDescription(life.paths).currentPath(), 0755));
  EXPECT_EQ(life.toldByPosting("low", "key"), everywhere);
  EXPECT_THAT(life.errors, ElementsAre(StartsWith("notification log append failed: ")));
}

TEST(HelperNotifications, takeAStateFileThatTheyCanNotUnderstandForEmpty) {
  for (const std::string text : {"", "[]", "{}", R"({"lastPostedByKey":{"key":12}})"}) {
    sim::SimPosix files;
    prepareMachine(files);
    NoticeLife life(files);
    writeAtomically(files, life.life.random(), life.paths.state("notifications-state.json"), text, 0600);
    EXPECT_FALSE(life.isActive("key")) << text;
    EXPECT_EQ(life.toldByPosting("low", "key"), everywhere) << text;
    EXPECT_TRUE(NoticeLife(files).isActive("key")) << "the next write replaces it";
  }
}

// Goal:   whatever fails, each notice goes out once, nobody hears of the file, and what is left is a state that was.
// Method: every file call of a load and two posts fails, ends the process or ends the power; the next process looks.
TEST(HelperNotifications, loseAtMostACooldownWhateverFails) {
  const auto prepare = [](sim::SimPosix& files) {
    prepareMachine(files);
    (void)NoticeLife(files).toldByPosting("low", "first");
  };
  const auto post = [](sim::SimPosix& files) {
    NoticeLife life(files, sim::SimulationOptions().start + 3600s);
    EXPECT_EQ(life.toldByPosting("low", "first"), everywhere);
    EXPECT_EQ(life.toldByPosting("low", "second"), everywhere);
    EXPECT_TRUE(life.notices.isActive("first") && life.notices.isActive("second"));
    for (const std::string& error : life.errors) EXPECT_THAT(error, StartsWith("notification log append failed: "));
  };
  const auto look = [](sim::SimPosix& after, const sim::FaultRun& run) -> std::string {
    NoticeLife next(after, sim::SimulationOptions().start + 3600s);
    const std::string text = next.stateText();
    const std::string before = R"({"lastPostedByKey":{"first":"2026-03-01T09:00:00Z"}})";
    const std::string between = R"({"lastPostedByKey":{"first":"2026-03-01T10:00:00Z"}})";
    const std::string end = R"({"lastPostedByKey":{"first":"2026-03-01T10:00:00Z","second":"2026-03-01T10:00:00Z"}})";
    if (text != before && text != between && text != end) return "a state that never was: " + text;
    if (run.plan.fault == sim::Fault::kill) return "";
    const auto names = after.list(next.paths.stateDirectory);
    return names && names->size() == 1 ? "" : "a temporary file stays";
  };
  EXPECT_THAT(sim::forEachFault({.errors = {EIO, ENOSPC, EROFS, EACCES, EMFILE}}, prepare, post, look), IsEmpty());
}

}  // namespace
}  // namespace quillmark
