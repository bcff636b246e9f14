// What only real threads can show: how the pool grows and shrinks, and how the process ends on a defect.
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>

#include "DispatchBackends.h"

namespace quillmark::os {
namespace {

using namespace std::chrono_literals;
using contract::Events;
using testing::ElementsAre;

class DispatchPoolTest : public testing::Test {
 protected:
  LinuxClock clock_;
};
using DispatchDeathTest = DispatchPoolTest;

TEST_F(DispatchPoolTest, IdleWorkersEnd) {
  LinuxDispatch dispatch(clock_, {.idleSpan = 5ms});
  Group group(dispatch);
  for (int i = 0; i < 8; ++i) {
    group.enter();
    dispatch.global(QualityOfService::utility)->async([&] {
      sleepFor(dispatch, 5ms);
      group.leave();
    });
  }
  EXPECT_GE(dispatch.workerCount(), 2U);
  group.wait();
  for (int i = 0; i < 2000 && dispatch.workerCount() > 0; ++i) sleepFor(dispatch, 1ms);
  EXPECT_EQ(dispatch.workerCount(), 0U);
  bool ran = false;
  dispatch.makeQueue({.label = "again"})->async([&] { ran = true; });
  dispatch.shutdown();
  EXPECT_TRUE(ran);
}

TEST_F(DispatchPoolTest, AnIdleWorkerIsUsedBeforeAnotherIsStarted) {
  LinuxDispatch dispatch(clock_);
  auto queue = dispatch.makeQueue({.label = "serial"});
  Semaphore done(dispatch);
  for (int i = 0; i < 50; ++i) {
    queue->async([&] { done.signal(); });
    done.wait();
  }
  EXPECT_LE(dispatch.workerCount(), 2U);
}

// Goal:   the cap holds back items of concurrent queues alone, is told once with what blocks, and all comes through.
// Method: a cap of 4 filled with blocked items; a serial queue must still run and lets the others go.
TEST_F(DispatchPoolTest, TheCapSparesSerialQueuesAndIsToldOnce) {
  LinuxDispatch reporting(clock_);
  Events reports(reporting);
  LinuxDispatch dispatch(clock_, {.cap = 4, .onCapReached = [&](const std::string& text) { reports.add(text); }});
  auto crowd = dispatch.makeQueue({.label = "crowd", .concurrent = true});
  Semaphore go(dispatch);
  Group group(dispatch);
  for (int i = 0; i < 10; ++i) {
    group.enter();
    crowd->async([&] {
      go.wait();
      group.leave();
    });
  }
  EXPECT_EQ(dispatch.workerCount(), 4U);
  Semaphore served(dispatch);
  dispatch.makeQueue({.label = "serial"})->async([&] { served.signal(); });
  EXPECT_TRUE(served.waitFor(10s));
  for (int i = 0; i < 10; ++i) go.signal();
  EXPECT_TRUE(group.waitFor(10s));
  EXPECT_THAT(reports.await(1), ElementsAre("4 threads are busy, in \"crowd\" 4."));
}

TEST_F(DispatchPoolTest, ShutdownRunsOutWhatItemsPutOnQueues) {
  int depth = 0;
  {
    LinuxDispatch dispatch(clock_);
    auto first = dispatch.makeQueue({.label = "first"});
    auto second = dispatch.makeQueue({.label = "second"});
    UniqueFunction<void()> hop = [&] {
      if (++depth == 50) return;
      (depth % 2 ? second : first)->async([&] { hop(); });
    };
    first->async([&] { hop(); });
    first->asyncAfter(1h, [&] { depth = -1; });
    dispatch.shutdown();
    first->async([&] { depth = -1; });
  }
  EXPECT_EQ(depth, 50);
}

TEST_F(DispatchPoolTest, WorkersBlockSignalsAndBackgroundItemsAreIdleToTheDisk) {
  LinuxDispatch dispatch(clock_);
  const auto classOfThread = [] { return ::syscall(SYS_ioprio_get, 1, 0) >> 13; };
  const auto observe = [&](QualityOfService quality) {
    long observed = -1;
    bool blocked = false;
    Semaphore done(dispatch);
    dispatch.global(quality)->async([&] {
      observed = classOfThread();
      sigset_t signals;
      ::pthread_sigmask(SIG_BLOCK, nullptr, &signals);
      blocked = ::sigismember(&signals, SIGTERM) == 1 && ::sigismember(&signals, SIGCHLD) == 1;
      done.signal();
    });
    done.wait();
    EXPECT_TRUE(blocked);
    return observed;
  };
  const long ordinary = classOfThread();
  EXPECT_EQ(observe(QualityOfService::utility), ordinary);
  EXPECT_EQ(observe(QualityOfService::background), 3);
  EXPECT_EQ(observe(QualityOfService::userInitiated), ordinary) << "the same worker, back in its class";
  Semaphore done(dispatch);
  dispatch.global(QualityOfService::background)->async([&] {
    EXPECT_EQ(observe(QualityOfService::utility), ordinary) << "a worker that a background item made necessary";
    done.signal();
  });
  done.wait();
}

// Goal:   a thread that acts for a user doesn't hand its identity on to the pool.
// Method: from a throw-away thread with another effective uid, make the pool start its first worker.
TEST_F(DispatchPoolTest, AWorkerStartedByAnActingThreadIsOurs) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  LinuxDispatch dispatch(clock_);
  Semaphore done(dispatch);
  long uid = -1;
  dispatch.throwAwayThread("acting", [&] {
    ::syscall(SYS_setresuid, -1, 65534, -1);
    dispatch.makeQueue({.label = "ours"})->async([&] {
      uid = ::syscall(SYS_geteuid);
      done.signal();
    });
  });
  ASSERT_TRUE(done.waitFor(10s));
  EXPECT_EQ(uid, 0);
}

TEST_F(DispatchDeathTest, ASyncThatCouldNeverReturnNamesBothQueues) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto nested = [&](QueueOptions outer, QueueOptions middle, bool intoOuter) {
    LinuxDispatch dispatch(clock_);
    auto first = dispatch.makeQueue(std::move(outer));
    auto second = dispatch.makeQueue(std::move(middle));
    first->async(
        [&] { second->sync([&] { (intoOuter ? first : dispatch.makeQueue({.label = "third"}))->sync([] {}); }); });
    dispatch.shutdown();
  };
  EXPECT_DEATH(nested({.label = "outer"}, {.label = "middle"}, true),
               "sync from \"middle\" onto \"outer\": already in it");
  EXPECT_DEATH(nested({.label = "log of epochs", .rank = QueueRank::epoch},
                      {.label = "volume 7", .rank = QueueRank::volume}, false),
               "sync from \"log of epochs\" onto \"volume 7\": against the rank");
  EXPECT_DEATH(
      nested({.label = "volume 1", .rank = QueueRank::volume}, {.label = "volume 2", .rank = QueueRank::volume}, false),
      "sync from \"volume 1\" onto \"volume 2\": against the rank");
}

TEST_F(DispatchDeathTest, AnItemThatThrowsEndsTheProcessWithItsLabel) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto throwing = [&](bool onThread) {
    LinuxDispatch dispatch(clock_);
    auto work = [] { throw std::runtime_error("the reason"); };
    if (onThread) {
      dispatch.throwAwayThread("culprit", work);
      sleepFor(dispatch, 10s);
    } else {
      dispatch.makeQueue({.label = "culprit"})->async(work);
      dispatch.shutdown();
    }
  };
  EXPECT_DEATH(throwing(false), "uncaught exception in an item of \"culprit\": the reason");
  EXPECT_DEATH(throwing(true), "uncaught exception in an item of \"culprit\": the reason");
}

TEST_F(DispatchDeathTest, BeingOnAnotherQueueThanAssertedNamesIt) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(LinuxDispatch(clock_).makeQueue({.label = "expected"})->assertOn(), "not on queue expected");
}

}  // namespace
}  // namespace quillmark::os
