#include "ServiceMachine.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const std::string key = "helperHealthDegraded";

// A monitor over one subsystem that can be broken, on a machine whose helper has not started.
struct Patient {
  explicit Patient(ServiceMachine& on) : machine(on) {}

  HelperHealthStatus look() {
    HelperHealthStatus status;
    EXPECT_TRUE(machine.simulation.run(machine.life, [&] { status = monitor.evaluate(); }));
    return status;
  }
  // Titles and messages of all that went out.
  [[nodiscard]] std::vector<HelperNotification> notices() {
    return JSONLinesReader<HelperNotification>(machine.posix, machine.platformLog,
                                               notificationLogDescription(machine.paths))
        .readSince({})
        .records;
  }
  void breakDown(const std::string& detail) { history = {HelperSubsystemState::degraded, detail}; }

  ServiceMachine& machine;
  HelperSubsystemHealth history, settings;
  HelperNotifications& notifications = machine.helper.environment().notifications;
  HealthMonitor monitor{machine.life.dispatch(),
                        machine.life.random(),
                        machine.helper.log(),
                        notifications,
                        {.history = [this] { return history; }, .settings = [this] { return settings; }}};
};

struct StateMachine : ServiceMachine {
  StateMachine() { createDirectories(posix, paths.stateDirectory, 0700); }
};

class HealthNotices : public ::testing::Test {
 protected:
  StateMachine machine;
  Patient patient{machine};
};

TEST_F(HealthNotices, tellPeopleOfTroubleThatLastsTwoMinutesThoughNobodyAsks) {
  (void)patient.look();
  patient.breakDown("index is broken");
  (void)patient.look();
  machine.simulation.runFor(120s);
  EXPECT_THAT(patient.notices(), IsEmpty());
  machine.simulation.runFor(1s);
  ASSERT_THAT(patient.notices(), SizeIs(1));
  const std::string reference = patient.look().correlationID.substr(0, 8);
  HelperNotification expected;
  expected.id = patient.notices()[0].id;
  expected.timestamp = machine.life.clock().now();
  expected.title = "Quillmark helper is degraded";
  expected.message =
      "history: index is broken. Automatic snapshot deletion continues; some features may be limited. Reference: " +
      reference + ".";
  expected.category = NotificationCategory::failure;
  expected.importance = NotificationImportance::critical;
  expected.dedupeKey = key;
  expected.cooldown = 21600.0;
  EXPECT_EQ(patient.notices()[0], expected);

  machine.simulation.runFor(7h);
  (void)patient.look();
  EXPECT_THAT(patient.notices(), SizeIs(1)) << "once, while it lasts";
  patient.history = {};
  const std::string recovered = patient.look().correlationID.substr(0, 8);
  ASSERT_THAT(patient.notices(), SizeIs(2));
  EXPECT_EQ(patient.notices()[1].kind, HelperNotification::Kind::resolve);
  EXPECT_EQ(patient.notices()[1].title, "Quillmark helper recovered");
  EXPECT_EQ(patient.notices()[1].message,
            "The problem cleared on its own; the background service is healthy again. Automatic snapshot deletion, if "
            "it was paused, has resumed. Reference: " +
                recovered + ".");
  (void)patient.look();
  EXPECT_THAT(patient.notices(), SizeIs(2));
}

TEST_F(HealthNotices, sayThatDeletionIsPausedWhenItIs) {
  patient.settings = {HelperSubsystemState::unavailable, "unreadable"};
  (void)patient.look();
  machine.simulation.runFor(121s);
  ASSERT_THAT(patient.notices(), SizeIs(1));
  EXPECT_TRUE(patient.notices()[0].message.starts_with(
      "settings: unreadable. Automatic snapshot deletion is paused until helper health recovers. Reference: "));
}

TEST_F(HealthNotices, passShortTroubleOver) {
  const std::string first = patient.look().correlationID;
  patient.breakDown("a glitch");
  const std::string second = patient.look().correlationID;
  machine.simulation.runFor(119s);
  patient.history = {};
  const std::string third = patient.look().correlationID;
  machine.simulation.runFor(1h);
  EXPECT_THAT(patient.notices(), IsEmpty());
  EXPECT_TRUE(first != second && second != third);

  patient.breakDown("another");
  (void)patient.look();
  machine.simulation.runFor(60s);
  patient.history = {};
  (void)patient.look();
  patient.breakDown("yet another");
  (void)patient.look();
  machine.simulation.runFor(62s);
  EXPECT_THAT(patient.notices(), IsEmpty()) << "the spell began anew; the recheck of the first one sees that";
  machine.simulation.runFor(121s);
  EXPECT_THAT(patient.notices(), SizeIs(1)) << "and looks once more";
}

TEST_F(HealthNotices, countFromTheFirstTroubleWhateverItsText) {
  for (int i = 0; i < 3; ++i) {
    patient.breakDown(std::to_string(i));
    (void)patient.look();
    machine.simulation.runFor(40s);
  }
  (void)patient.look();
  ASSERT_THAT(patient.notices(), SizeIs(1)) << "120 seconds after the first, not waiting for the recheck";
  EXPECT_TRUE(patient.notices()[0].message.starts_with("history: 2. "));
}

TEST_F(HealthNotices, countAnewWhenTheClockWasSetBack) {
  patient.breakDown("index is broken");
  (void)patient.look();
  machine.simulation.jumpWallClock(Seconds(-86'400));
  machine.simulation.runFor(121s);
  EXPECT_THAT(patient.notices(), IsEmpty());
  machine.simulation.runFor(121s);
  EXPECT_THAT(patient.notices(), SizeIs(1)) << "and not a day later";
}

TEST(HealthNoticesOfLives, endWhatAnEarlierLifeLeftActiveOnlyWhenItIsOver) {
  for (const bool isBroken : {false, true}) {
    StateMachine machine;
    {
      Patient before(machine);
      before.breakDown("old");
      (void)before.look();
      machine.simulation.runFor(121s);
      ASSERT_THAT(before.notices(), SizeIs(1));
    }
    Patient next(machine);
    if (isBroken) next.breakDown("still");
    (void)next.look();
    machine.simulation.runFor(10min);
    (void)next.look();
    if (isBroken) {
      EXPECT_THAT(next.notices(), SizeIs(1)) << "it was told already";
      continue;
    }
    ASSERT_THAT(next.notices(), SizeIs(2));
    EXPECT_EQ(next.notices()[1].message, "The background service started healthy.");
    EXPECT_EQ(next.notices()[1].title, "Quillmark helper recovered");
  }
}

TEST_F(HealthNotices, tellOnceThatItIsWellAgainHoweverManyLookAtOnce) {
  patient.breakDown("index is broken");
  (void)patient.look();
  machine.simulation.runFor(121s);
  ASSERT_THAT(patient.notices(), SizeIs(1));
  const auto lookFourTimes = [&](Patient& looking) {
    for (int i = 0; i < 4; ++i) machine.life.spawn("looking", [&] { (void)looking.monitor.evaluate(); });
    machine.simulation.runUntilIdle();
    return looking.notices().back().message;
  };
  Patient started(machine);
  EXPECT_EQ(lookFourTimes(started), "The background service started healthy.");
  EXPECT_THAT(started.notices(), SizeIs(2));

  started.breakDown("index is broken");
  (void)started.look();
  machine.simulation.runFor(121s);
  started.history = {};
  EXPECT_THAT(lookFourTimes(started), ::testing::StartsWith("The problem cleared on its own; "));
  EXPECT_THAT(started.notices(), SizeIs(4));
}

}  // namespace
}  // namespace quillmark
