#include <gmock/gmock.h>

#include <cerrno>

#include "platform/sim/Simulation.h"
#include "platform/sync.h"

namespace quillmark::sim {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

// Goal:   each fiber has its own exceptions and errno.
// Method: fibers wait inside catch blocks, in interleaved order, then rethrow what they handle.
TEST(Simulation, FibersInsideCatchBlocksRethrowTheirOwn) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    Simulation simulation({.seed = seed});
    Life& life = simulation.startLife("life");
    std::vector<std::string> caught(4);
    int errors = 0;
    simulation.run(life, [&] {
      Group group(life.dispatch());
      for (std::size_t i = 0; i < caught.size(); ++i) {
        group.enter();
        life.spawn("fiber", [&, i] {
          try {
            try {
              throw std::runtime_error(std::to_string(i));
            } catch (...) {
              errno = static_cast<int>(i) + 1;
              for (int n = 0; n < 5; ++n) simulation.yield();
              errors += errno != static_cast<int>(i) + 1;
              life.delay(1ms);
              throw;
            }
          } catch (const std::runtime_error& error) {
            caught[i] = error.what();
          }
          errors += std::uncaught_exceptions();
          group.leave();
        });
      }
      group.wait();
    });
    EXPECT_THAT(caught, ElementsAre("0", "1", "2", "3"));
    EXPECT_EQ(errors, 0);
  }
}

TEST(Simulation, WhatTheBodyThrowsReachesTheCaller) {
  Simulation simulation;
  EXPECT_THROW(simulation.run([] { throw std::out_of_range("body"); }), std::out_of_range);
  EXPECT_TRUE(simulation.run([] {}));
}

// The draws of a seed and the order in which its fibers came through.
std::pair<std::uint64_t, std::string> runOfSeed(std::uint64_t seed) {
  Simulation simulation({.seed = seed});
  Life& life = simulation.startLife("life");
  std::string order;
  simulation.run(life, [&] {
    Mutex mutex(life.dispatch());
    auto queue = life.dispatch().makeQueue({.label = "wide", .concurrent = true, .width = 5});
    for (char name = 'a'; name < 'i'; ++name) {
      queue->async([&, name] {
        for (int i = 0; i < 3; ++i) {
          MutexLock lock(mutex);
          order += name;
          life.delay(std::chrono::nanoseconds(life.random().next() % 1000));
        }
      });
    }
    queue->syncBarrier([] {});
  });
  return {simulation.lastDraw(), order};
}

TEST(Simulation, ASeedRepeatsToTheLastDrawAndAnotherGoesAnotherWay) {
  const auto [draw, order] = runOfSeed(7);
  EXPECT_EQ(runOfSeed(7), std::pair(draw, order));
  EXPECT_EQ(order.size(), 24U);
  EXPECT_NE(runOfSeed(8).second, order);
  EXPECT_NE(runOfSeed(8).first, draw);
}

// What run() says of a body that can never end.
std::string deadlockOf(Simulation& simulation, Life& life, FunctionRef<void()> body) {
  try {
    simulation.run(life, body);
  } catch (const Deadlock& deadlock) {
    EXPECT_FALSE(life.isAlive());
    return deadlock.what();
  }
  return "no deadlock";
}

TEST(Simulation, ADeadlockTellsWhoWaitsForWhat) {
  Simulation simulation({.seed = 5, .switchPercent = 0});
  Life& life = simulation.startLife("helper");
  Mutex one(life.dispatch());
  Mutex two(life.dispatch());
  auto queue = life.dispatch().makeQueue({.label = "volumes"});
  const std::string text = deadlockOf(simulation, life, [&] {
    queue->async([&] {
      MutexLock first(two);
      life.delay(1s);
      MutexLock second(one);
    });
    MutexLock first(one);
    life.delay(2s);
    queue->sync([] {});
  });
  EXPECT_THAT(text, HasSubstr("seed 5"));
  EXPECT_THAT(text, HasSubstr("helper, \"volumes\": waits for a mutex held by \"body\""));
  EXPECT_THAT(text, HasSubstr("helper, \"body\": sync onto \"volumes\""));
}

TEST(Simulation, ADeadlockIsFoundBesideARepeatingTimer) {
  Simulation simulation({.patience = 1h});
  Life& life = simulation.startLife("helper");
  auto timer = life.dispatch().makeTimer(life.dispatch().makeQueue({.label = "ticks"}), [] {});
  timer->fireAfter(1s, 1s);
  Semaphore never(life.dispatch());
  EXPECT_THAT(deadlockOf(simulation, life, [&] { never.wait(); }), HasSubstr("\"body\": waits on a condition"));
}

TEST(Simulation, ALongSleepIsNoDeadlock) {
  Simulation simulation({.patience = 1h});
  Life& life = simulation.startLife("life");
  const Date before = simulation.clock().now();
  EXPECT_TRUE(simulation.run(life, [&] { life.delay(24h * 365); }));
  EXPECT_NEAR((simulation.clock().now() - before).count(), 365 * 86'400, 1e-3);
}

// Goal:   a killed life does nothing any more, wherever it stood, and its successor is not disturbed.
// Method: freeze a life with a fiber in the middle of its work, queued items, a timer and a delayed item.
TEST(Simulation, AFrozenLifeIsNeverHeardOfAgain) {
  Simulation simulation;
  Life& life = simulation.startLife("first");
  std::vector<std::string> events;
  struct Told {
    explicit Told(std::vector<std::string>& all) : events(all) {}
    std::vector<std::string>& events;
    ~Told() { events.push_back("unwound"); }
  };
  auto queue = life.dispatch().makeQueue({.label = "work"});
  auto timer = life.dispatch().makeTimer(queue, [&] { events.push_back("timer"); });
  Mutex mutex(life.dispatch());
  bool toldOfEnd = false;
  life.atEnd([&] { toldOfEnd = true; });
  simulation.run(life, [&] {
    timer->fireAfter(10ms, 10ms);
    queue->asyncAfter(5ms, [&, told = std::make_unique<Told>(events)] { events.push_back("delayed"); });
    queue->async([&] {
      const Told told(events);
      const auto onHeap = std::make_unique<std::string>(100, 'x');  // only this fiber knows it
      MutexLock lock(mutex);
      life.delay(1s);
      events.push_back("resumed " + *onHeap);
    });
    queue->async([&, told = std::make_unique<Told>(events)] { events.push_back("queued"); });
  });
  simulation.runFor(1ms);
  life.kill();
  EXPECT_TRUE(toldOfEnd);
  EXPECT_FALSE(life.isAlive());
  queue->async([&] { events.push_back("late"); });
  queue->sync([&] { events.push_back("late sync"); });
  timer->fireAfter(1ms);

  Life& next = simulation.startLife("second");
  EXPECT_NE(next.pid(), life.pid());
  EXPECT_TRUE(simulation.run(next, [&] { next.delay(1h); }));
  EXPECT_THAT(events, ElementsAre());
}

TEST(Simulation, ALifeMayKillItselfInMidCall) {
  Simulation simulation;
  Life& life = simulation.startLife("life");
  bool wentOn = false;
  int toldOfEnd = 0;
  life.atEnd([&] { ++toldOfEnd; });
  EXPECT_FALSE(simulation.run(life, [&] {
    Life::current()->kill();
    wentOn = true;
  }));
  EXPECT_FALSE(wentOn);
  EXPECT_EQ(toldOfEnd, 1);
}

TEST(Simulation, TwoLivesRunSideBySideWithNothingInCommonButTheMachine) {
  Simulation simulation;
  Life& one = simulation.startLife("one");
  Life& other = simulation.startLife("other");
  std::vector<std::string> seen;
  const auto note = [&](Life& life) {
    return [&] { seen.push_back(Life::current() == &life ? life.name() : "another's"); };
  };
  one.dispatch().makeQueue({.label = "queue"})->asyncAfter(2s, note(one));
  other.dispatch().makeQueue({.label = "queue"})->asyncAfter(1s, note(other));
  one.dispatch().makeQueue({.label = "queue"})->asyncAfter(4s, note(one));
  other.dispatch().makeQueue({.label = "queue"})->asyncAfter(4s, note(other));
  simulation.runFor(3s);
  one.kill();
  simulation.runFor(3s);
  EXPECT_THAT(seen, ElementsAre("other", "one", "other"));
  EXPECT_NE(one.random().uuid(), other.random().uuid());
  EXPECT_EQ(Life::current(), nullptr);
}

TEST(Simulation, AnEndRunsEveryFiberOutAndDropsTimers) {
  Simulation simulation;
  Life& life = simulation.startLife("life");
  auto queue = life.dispatch().makeQueue({.label = "queue"});
  int items = 0;
  auto token = std::make_shared<int>();
  queue->asyncAfter(48h, [&, token] { items = -1; });
  queue->async([&] {
    life.delay(1min);
    queue->async([&] { ++items; });
    ++items;
  });
  life.end();
  EXPECT_EQ(items, 2);
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_FALSE(life.isAlive());
}

TEST(Simulation, AnEndTellsWhoNeverEnds) {
  Simulation simulation;
  Life& life = simulation.startLife("life");
  Semaphore never(life.dispatch());
  life.spawn("reader", [&] { never.wait(); });
  try {
    life.end();
    FAIL() << "ended";
  } catch (const Deadlock& deadlock) {
    EXPECT_THAT(deadlock.what(), HasSubstr("\"life\" never ends:\n  life, \"reader\": waits on a condition"));
  }
}

class SimulatedTime : public testing::Test {
 protected:
  [[nodiscard]] double seconds() { return (simulation_.clock().now() - start_).count(); }
  void fireEvery(Seconds interval) {
    timer_ = life_.dispatch().makeTimer(life_.dispatch().makeQueue({.label = "timers"}),
                                        [this] { firings_.push_back(seconds()); });
    timer_->fireAt(start_ + interval, interval);
  }

  Simulation simulation_;
  Life& life_ = simulation_.startLife("life");
  const Date start_ = simulation_.clock().now();
  std::unique_ptr<Timer> timer_;
  std::vector<double> firings_;
};

TEST_F(SimulatedTime, AWallTimerThatSleptThroughFiringsFiresOnceAndKeepsItsGrid) {
  fireEvery(Seconds(60));
  simulation_.runFor(90s);
  simulation_.sleepMachine(1h);
  simulation_.runFor(40s);
  using testing::DoubleNear;
  EXPECT_THAT(firings_, ElementsAre(DoubleNear(60, 1e-3), DoubleNear(3690, 1e-3), DoubleNear(3720, 1e-3)));
}

TEST_F(SimulatedTime, AWallTimerFollowsTheClockWhenItIsSet) {
  fireEvery(Seconds(60));
  simulation_.jumpWallClock(Seconds(600));
  simulation_.runUntilIdle();
  EXPECT_EQ(firings_.size(), 1U) << "once for ten missed firings";
  simulation_.jumpWallClock(Seconds(-310));
  simulation_.runFor(9s);
  EXPECT_EQ(firings_.size(), 1U);
  simulation_.runFor(62s);
  using testing::DoubleNear;
  EXPECT_THAT(firings_, ElementsAre(DoubleNear(600, 1e-3), DoubleNear(300, 1e-3), DoubleNear(360, 1e-3)))
      << "on the minutes that the clock now shows";
}

TEST_F(SimulatedTime, AClockSetBackPullsNoFirstFiringBeforeItsDate) {
  timer_ = life_.dispatch().makeTimer(life_.dispatch().makeQueue({.label = "timers"}),
                                      [this] { firings_.push_back(seconds()); });
  timer_->fireAt(start_ + Seconds(3600), Seconds(60));
  simulation_.jumpWallClock(Seconds(-600));
  simulation_.runFor(4199s);
  EXPECT_TRUE(firings_.empty());
  simulation_.runFor(2s);
  EXPECT_EQ(firings_.size(), 1U);
}

TEST_F(SimulatedTime, AMonotonicTimerKnowsNothingOfSleepAndOfTheWall) {
  timer_ = life_.dispatch().makeTimer(life_.dispatch().makeQueue({.label = "timers"}),
                                      [this] { firings_.push_back(seconds()); });
  timer_->fireAfter(100s);
  const auto boot = simulation_.clock().sinceBoot();
  simulation_.sleepMachine(1h);
  simulation_.jumpWallClock(Seconds(-7200));
  simulation_.runFor(99s);
  EXPECT_TRUE(firings_.empty());
  EXPECT_EQ(simulation_.clock().sinceBoot() - boot, 1h + 99s);
  simulation_.runFor(1s);
  EXPECT_EQ(firings_.size(), 1U);
}

TEST_F(SimulatedTime, TheZoneIsTheMachinesAndMayChange) {
  const Date summer = Date::from1970(1'785'585'723);  // 12:02:03 UTC
  EXPECT_EQ(life_.clock().local(summer).hour, 12);
  simulation_.setTimeZone("Europe/Berlin");
  EXPECT_EQ(life_.clock().local(summer).hour, 14);
  EXPECT_EQ(life_.clock().timeZone(), "Europe/Berlin");
}

TEST(SimulationDeathTest, AFatalLineNamesTheSeed) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto throwing = [] {
    Simulation simulation({.seed = 41});
    simulation.run([] {
      Life::current()->dispatch().makeQueue({.label = "culprit"})->async([] {
        throw std::runtime_error("the reason");
      });
    });
  };
  EXPECT_DEATH(throwing(), "simulation of seed 41: uncaught exception in an item of \"culprit\": the reason");
}

TEST(SimulationDeathTest, AFiberThatOverrunsItsStackEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Simulation simulation({.stackSize = 64 * 1024});
        std::function<int(int)> deeper = [&](int depth) {
          volatile char frame[1024];
          frame[0] = static_cast<char>(depth);
          return depth == 0 ? 0 : deeper(depth - 1) + frame[0];
        };
        simulation.run([&] { deeper(10'000); });
      },
      "");
}

}  // namespace
}  // namespace quillmark::sim
