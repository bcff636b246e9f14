// What queues, timers and threads promise, on every backend.
#pragma once

#include <gmock/gmock.h>

#include "platform/contract/DispatchBackend.h"

namespace quillmark::contract {

using testing::ElementsAre;

TEST_P(DispatchSuite, ASerialQueueRunsItsItemsOneByOneInOrder) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "serial"});
    Crowd crowd(dispatch);
    std::vector<int> order;  // guarded by the queue
    for (int i = 0; i < 20; ++i) {
      queue->async([&, i] {
        order.push_back(i);
        crowd.visit(100us);
      });
    }
    queue->sync([] {});
    std::vector<int> expected(20);
    for (int i = 0; i < 20; ++i) expected[static_cast<std::size_t>(i)] = i;
    EXPECT_EQ(order, expected);
    EXPECT_EQ(crowd.most(), 1);
  });
}

TEST_P(DispatchSuite, AConcurrentQueueFillsItsWidthAndNoMore) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "wide", .concurrent = true, .width = 3});
    Crowd crowd(dispatch);
    Group group(dispatch);
    for (int i = 0; i < 9; ++i) {
      group.enter();
      queue->async([&] {
        crowd.visit(20ms);
        group.leave();
      });
    }
    group.wait();
    EXPECT_EQ(crowd.most(), 3);
  });
}

// Goal:   a barrier runs alone, after what was put before it and before what came after.
// Method: visitors on both sides and barriers between; the barriers look how many are inside.
TEST_P(DispatchSuite, ABarrierRunsAloneAndInItsPlace) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "wide", .concurrent = true, .width = 4});
    Crowd crowd(dispatch);
    Events events(dispatch);
    const auto visit = [&](const char* name) {
      queue->async([&, name] {
        crowd.visit(2ms);
        events.add(name);
      });
    };
    for (int i = 0; i < 3; ++i) visit("before");
    queue->asyncBarrier([&] { events.add("barrier with " + std::to_string(crowd.inside()) + " inside"); });
    for (int i = 0; i < 3; ++i) visit("between");
    queue->syncBarrier([&] { events.add("barrier with " + std::to_string(crowd.inside()) + " inside"); });
    visit("after");
    EXPECT_THAT(events.await(9), ElementsAre("before", "before", "before", "barrier with 0 inside", "between",
                                             "between", "between", "barrier with 0 inside", "after"));
  });
}

TEST_P(DispatchSuite, SyncRunsOnTheCallerInTheOrderOfTheQueue) {
  on([](Dispatch& dispatch) {
    auto outer = dispatch.makeQueue({.label = "outer"});
    auto inner = dispatch.makeQueue({.label = "inner"});
    Events events(dispatch);
    inner->async([&] {
      sleepFor(dispatch, 5ms);
      events.add("earlier item");
    });
    outer->async([&] {
      bool ranHere = false;  // a variable of the caller: no other may be running
      inner->sync([&] {
        events.add(outer->isCurrent() && inner->isCurrent() ? "sync in both" : "sync elsewhere");
        ranHere = true;
      });
      events.add(ranHere && outer->isCurrent() && !inner->isCurrent() ? "back" : "not back");
    });
    EXPECT_THAT(events.await(3), ElementsAre("earlier item", "sync in both", "back"));
  });
}

TEST_P(DispatchSuite, SyncHandsTheCallerWhatTheWorkThrowsAndGivesTheQueueBack) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "serial"});
    EXPECT_THROW(queue->sync([] { throw std::runtime_error("mine"); }), std::runtime_error);
    bool ran = false;
    queue->sync([&] { ran = true; });
    EXPECT_TRUE(ran);
    EXPECT_FALSE(queue->isCurrent());
  });
}

TEST_P(DispatchSuite, OnlyItemsOfAQueueAreOnIt) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "one"});
    auto other = dispatch.makeQueue({.label = "other"});
    EXPECT_FALSE(queue->isCurrent());
    Events events(dispatch);
    queue->async([&] {
      queue->assertOn();
      // What is put on a queue from here does not inherit where it was put from.
      other->async([&] { events.add(other->isCurrent() && !queue->isCurrent() ? "on the other alone" : "mixed up"); });
    });
    EXPECT_THAT(events.await(1), ElementsAre("on the other alone"));
  });
}

TEST_P(DispatchSuite, SyncInAscendingRankIsServed) {
  on([](Dispatch& dispatch) {
    auto volume = dispatch.makeQueue({.label = "volume", .rank = QueueRank::volume});
    auto plain = dispatch.makeQueue({.label = "plain"});
    auto epoch = dispatch.makeQueue({.label = "epoch", .rank = QueueRank::epoch});
    int depth = 0;
    volume->sync([&] { plain->sync([&] { epoch->sync([&] { depth = 3; }); }); });
    EXPECT_EQ(depth, 3);
  });
}

TEST_P(DispatchSuite, DelayedItemsComeInTheOrderOfTheirDelays) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "serial"});
    Events events(dispatch);
    const MonotonicTime start = dispatch.clock().monotonic();
    queue->asyncAfter(
        30ms, [&] { events.add(dispatch.clock().monotonic() - start >= 30ms ? "second" : "second, too early"); });
    queue->asyncAfter(10ms, [&] { events.add("first"); });
    EXPECT_THAT(events.await(2), ElementsAre("first", "second"));
  });
}

TEST_P(DispatchSuite, AQueueOutlivesItsLastHandleUntilItsWorkIsDone) {
  on([](Dispatch& dispatch) {
    Events events(dispatch);
    std::weak_ptr<Queue> watched;
    {
      auto queue = dispatch.makeQueue({.label = "forgotten"});
      watched = queue;
      for (int i = 0; i < 3; ++i) {
        queue->async([&] {
          sleepFor(dispatch, 1ms);
          events.add("ran");
        });
      }
      queue->asyncAfter(20ms, [&] { events.add("delayed"); });
    }
    EXPECT_THAT(events.await(4), ElementsAre("ran", "ran", "ran", "delayed"));
    for (int i = 0; i < 1000 && !watched.expired(); ++i) sleepFor(dispatch, 1ms);
    EXPECT_TRUE(watched.expired());
  });
}

TEST_P(DispatchSuite, AnItemLetsGoOfWhatItCapturedBeforeTheNextStarts) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "serial"});
    auto token = std::make_shared<int>();
    std::weak_ptr<int> watched = token;
    bool goneInNext = false;
    queue->async([token = std::move(token)] {});
    queue->sync([&] { goneInNext = watched.expired(); });
    EXPECT_TRUE(goneInNext);
  });
}

// Goal:   nothing that many put on one queue at once is lost, doubled or run side by side.
// Method: several throw-away threads put items that add to a plain counter.
TEST_P(DispatchSuite, NothingIsLostThatManyThreadsPutOnOneQueue) {
  on([](Dispatch& dispatch) {
    constexpr int threads = 6;
    constexpr int items = 500;
    auto queue = dispatch.makeQueue({.label = "serial"});
    Group group(dispatch);
    int counter = 0;  // guarded by the queue
    for (int i = 0; i < threads; ++i) {
      group.enter();
      dispatch.throwAwayThread("sender", [&] {
        for (int n = 0; n < items; ++n) {
          if (n % 50 == 0) {
            queue->sync([&] { ++counter; });
          } else {
            queue->async([&] { ++counter; });
          }
        }
        group.leave();
      });
    }
    group.wait();
    queue->sync([&] { EXPECT_EQ(counter, threads * items); });
  });
}

TEST_P(DispatchSuite, BlockedItemsDontKeepOthersFromRunning) {
  on([](Dispatch& dispatch) {
    constexpr int blocked = 40;  // more than cores
    auto global = dispatch.global(QualityOfService::utility);
    Semaphore arrived(dispatch);
    Semaphore go(dispatch);
    Group group(dispatch);
    for (int i = 0; i < blocked; ++i) {
      group.enter();
      global->async([&] {
        arrived.signal();
        go.wait();
        group.leave();
      });
    }
    for (int i = 0; i < blocked; ++i) ASSERT_TRUE(arrived.waitFor(10s));
    bool ran = false;
    Semaphore done(dispatch);
    dispatch.makeQueue({.label = "serial"})->async([&] {
      ran = true;
      done.signal();
    });
    EXPECT_TRUE(done.waitFor(10s));
    EXPECT_TRUE(ran);
    for (int i = 0; i < blocked; ++i) go.signal();
    group.wait();
  });
}

TEST_P(DispatchSuite, ARepeatingTimerFiresUntilItIsCancelled) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "timers"});
    Semaphore fired(dispatch);
    int firings = 0;  // guarded by the queue
    auto timer = dispatch.makeTimer(queue, [&] {
      queue->assertOn();
      ++firings;
      fired.signal();
    });
    timer->fireAfter(1ms, 2ms);
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(fired.waitFor(10s));
    timer->cancel();
    int atCancel = 0;
    queue->sync([&] { atCancel = firings; });
    sleepFor(dispatch, 20ms);
    queue->sync([&] { EXPECT_EQ(firings, atCancel); });
  });
}

TEST_P(DispatchSuite, AWallTimerFiresAtItsDateAndAPastDateIsDueAtOnce) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "timers"});
    Semaphore fired(dispatch);
    Date at;
    auto timer = dispatch.makeTimer(queue, [&] {
      at = dispatch.clock().now();
      fired.signal();
    });
    const Date date = dispatch.clock().now() + Seconds(0.02);
    timer->fireAt(date);
    ASSERT_TRUE(fired.waitFor(10s));
    EXPECT_GE(at, date);
    timer->fireAt(date - Seconds(3600));
    EXPECT_TRUE(fired.waitFor(10s));
    EXPECT_FALSE(fired.waitFor(20ms)) << "a timer without an interval fires once";
  });
}

TEST_P(DispatchSuite, ARepeatingWallTimerWithAnOldDateFiresOnceForAllThatItMissed) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "timers"});
    Semaphore fired(dispatch);
    auto timer = dispatch.makeTimer(queue, [&] { fired.signal(); });
    timer->fireAt(dispatch.clock().now() - Seconds(90'000), Seconds(3600 * 10));
    EXPECT_TRUE(fired.waitFor(10s));
    EXPECT_FALSE(fired.waitFor(30ms));
  });
}

TEST_P(DispatchSuite, SettingATimerAnewReplacesWhatWasSet) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "timers"});
    Semaphore fired(dispatch);
    auto timer = dispatch.makeTimer(queue, [&] { fired.signal(); });
    // The queue is held so that the firing of the first setting waits on it while the second is made.
    queue->sync([&] {
      timer->fireAfter(0ns);
      sleepFor(dispatch, 10ms);
      timer->fireAfter(40ms);
    });
    EXPECT_FALSE(fired.waitFor(15ms));
    EXPECT_TRUE(fired.waitFor(10s));
    EXPECT_FALSE(fired.waitFor(10ms));
  });
}

// Goal:   a handler is never run twice at once, and what comes due while it runs makes one more firing.
// Method: a slow handler on a concurrent queue under a quick timer.
TEST_P(DispatchSuite, ATimersHandlerNeverRunsTwiceAtOnce) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "timers", .concurrent = true});
    Crowd crowd(dispatch);
    Semaphore fired(dispatch);
    auto timer = dispatch.makeTimer(queue, [&] {
      crowd.visit(5ms);
      fired.signal();
    });
    timer->fireAfter(0ns, 1ms);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(fired.waitFor(10s));
    timer.reset();
    queue->syncBarrier([] {});
    EXPECT_EQ(crowd.most(), 1);
  });
}

TEST_P(DispatchSuite, WhatComesDueWhileTheHandlerRunsFiresAfterwards) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "timers", .concurrent = true});
    Semaphore fired(dispatch);
    std::unique_ptr<Timer> timer;
    int firings = 0;
    timer = dispatch.makeTimer(queue, [&] {
      if (++firings < 3) timer->fireAfter(0ns);
      sleepFor(dispatch, 5ms);
      fired.signal();
    });
    timer->fireAfter(0ns);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(fired.waitFor(10s));
    EXPECT_FALSE(fired.waitFor(10ms));
  });
}

TEST_P(DispatchSuite, ADroppedTimerEndsTheFiringUnderWayAndStartsNoOther) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "timers"});
    Events events(dispatch);
    Semaphore inside(dispatch);
    Semaphore go(dispatch);
    auto owned = std::make_shared<std::string>("handler ended");
    auto timer = dispatch.makeTimer(queue, [&, owned] {
      inside.signal();
      go.wait();
      events.add(*owned);
    });
    timer->fireAfter(0ns, 1ms);
    inside.wait();
    timer.reset();
    go.signal();
    sleepFor(dispatch, 10ms);
    queue->sync([] {});
    EXPECT_THAT(events.all(), ElementsAre("handler ended"));
    EXPECT_EQ(owned.use_count(), 1);
  });
}

TEST_P(DispatchSuite, ATimerMayBeDroppedByItsOwnHandler) {
  on([](Dispatch& dispatch) {
    auto queue = dispatch.makeQueue({.label = "timers"});
    Semaphore done(dispatch);
    std::unique_ptr<Timer> timer;
    queue->sync([&] {
      timer = dispatch.makeTimer(queue, [&] {
        timer.reset();
        done.signal();
      });
      timer->fireAfter(0ns, 1ms);
    });
    EXPECT_TRUE(done.waitFor(10s));
    EXPECT_FALSE(done.waitFor(10ms));
  });
}

}  // namespace quillmark::contract
