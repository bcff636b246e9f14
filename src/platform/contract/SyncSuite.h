// What locks, conditions, semaphores and groups promise, on every backend.
#pragma once

#include "platform/contract/DispatchBackend.h"

namespace quillmark::contract {

class SyncSuite : public DispatchSuite {};

TEST_P(SyncSuite, AMutexLetsOneInAtATime) {
  on([](Dispatch& dispatch) {
    constexpr int threads = 4;
    constexpr int rounds = 300;
    Mutex mutex(dispatch);
    Group group(dispatch);
    int counter = 0;
    for (int i = 0; i < threads; ++i) {
      group.enter();
      dispatch.throwAwayThread("counter", [&] {
        for (int n = 0; n < rounds; ++n) {
          MutexLock lock(mutex);
          const int seen = counter;
          if (n % 100 == 0) sleepFor(dispatch, 1us);
          counter = seen + 1;
        }
        group.leave();
      });
    }
    group.wait();
    EXPECT_EQ(counter, threads * rounds);
  });
}

TEST_P(SyncSuite, TryLockAnswersAtOnce) {
  on([](Dispatch& dispatch) {
    Mutex mutex(dispatch);
    Semaphore done(dispatch);
    bool refused = false;
    {
      MutexLock lock(mutex);
      dispatch.throwAwayThread("other", [&] {
        if (mutex.tryLock()) {
          mutex.unlock();
        } else {
          refused = true;
        }
        done.signal();
      });
      done.wait();
    }
    EXPECT_TRUE(refused);
    if (mutex.tryLock()) {
      mutex.unlock();
    } else {
      ADD_FAILURE() << "nobody holds it";
    }
  });
}

// Goal:   no wake-up is lost between producers and consumers.
// Method: one slot passed back and forth; every value arrives once and in order.
TEST_P(SyncSuite, AConditionWakesThoseWhoWaitForIt) {
  on([](Dispatch& dispatch) {
    constexpr int values = 200;
    Mutex mutex(dispatch);
    ConditionVariable changed(dispatch);
    std::optional<int> slot;
    std::vector<int> received;
    dispatch.throwAwayThread("producer", [&] {
      for (int i = 0; i < values; ++i) {
        MutexLock lock(mutex);
        while (slot) changed.wait(mutex);
        slot = i;
        changed.notifyOne();
      }
    });
    for (int i = 0; i < values; ++i) {
      MutexLock lock(mutex);
      while (!slot) changed.wait(mutex);
      received.push_back(*slot);
      slot.reset();
      changed.notifyOne();
    }
    ASSERT_EQ(received.size(), static_cast<std::size_t>(values));
    for (int i = 0; i < values; ++i) EXPECT_EQ(received[static_cast<std::size_t>(i)], i);
  });
}

TEST_P(SyncSuite, NotifyAllWakesEverybody) {
  on([](Dispatch& dispatch) {
    Mutex mutex(dispatch);
    ConditionVariable opened(dispatch);
    bool open = false;
    Group group(dispatch);
    for (int i = 0; i < 5; ++i) {
      group.enter();
      dispatch.throwAwayThread("waiter", [&] {
        {
          MutexLock lock(mutex);
          while (!open) opened.wait(mutex);
        }
        group.leave();
      });
    }
    EXPECT_FALSE(group.waitFor(5ms));
    {
      MutexLock lock(mutex);
      open = true;
    }
    opened.notifyAll();
    EXPECT_TRUE(group.waitFor(10s));
  });
}

TEST_P(SyncSuite, WaitingUntilADeadlineEndsThere) {
  on([](Dispatch& dispatch) {
    Mutex mutex(dispatch);
    ConditionVariable never(dispatch);
    const MonotonicTime deadline = dispatch.clock().monotonic() + 10ms;
    MutexLock lock(mutex);
    while (never.waitUntil(mutex, deadline)) {
    }
    EXPECT_GE(dispatch.clock().monotonic(), deadline);
    EXPECT_FALSE(never.waitUntil(mutex, deadline));
  });
}

TEST_P(SyncSuite, ASemaphoreCountsAndGivesUpInTime) {
  on([](Dispatch& dispatch) {
    Semaphore semaphore(dispatch, 1);
    EXPECT_TRUE(semaphore.waitFor(0ns));
    EXPECT_FALSE(semaphore.waitFor(0ns));
    const MonotonicTime start = dispatch.clock().monotonic();
    EXPECT_FALSE(semaphore.waitFor(10ms));
    EXPECT_GE(dispatch.clock().monotonic() - start, 10ms);
    dispatch.global(QualityOfService::utility)->asyncAfter(5ms, [&] {
      semaphore.signal();
      semaphore.signal();
    });
    EXPECT_TRUE(semaphore.waitFor(10s));
    semaphore.wait();
    EXPECT_FALSE(semaphore.waitFor(0ns));
  });
}

TEST_P(SyncSuite, AGroupTellsOfItsEndOnTheQueueAsked) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "told"});
    auto workers = dispatch.makeQueue({.label = "workers", .concurrent = true});
    Group group(dispatch);
    Semaphore told(dispatch);
    Guarded<int> done(dispatch, 0);
    for (int i = 0; i < 4; ++i) {
      group.enter();
      workers->asyncAfter(2ms, [&] {
        done.with([](int& count) { ++count; });
        group.leave();
      });
    }
    int atNotice = 0;
    group.notify(queue, [&] {
      queue->assertOn();
      atNotice = done.with([](int& count) { return count; });
      told.signal();
    });
    ASSERT_TRUE(told.waitFor(10s));
    EXPECT_EQ(atNotice, 4);
    group.notify(queue, [&] { told.signal(); });
    EXPECT_TRUE(told.waitFor(10s)) << "nothing is under way: at once";
  });
}

}  // namespace quillmark::contract
