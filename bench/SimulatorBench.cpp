// What a hop between queues costs, on real threads and simulated, and how fast simulated time goes by.
#include <benchmark/benchmark.h>

#include "platform/linux/Clock.h"
#include "platform/linux/Dispatch.h"
#include "platform/sim/Simulation.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;

// Items that put each other on two serial queues in turn.
void hops(Dispatch& dispatch, std::int64_t count) {
  const std::shared_ptr<Queue> queues[] = {dispatch.makeQueue({.label = "one"}), dispatch.makeQueue({.label = "two"})};
  Semaphore done(dispatch);
  UniqueFunction<void(std::int64_t)> hop = [&](std::int64_t left) {
    if (left == 0) return done.signal();
    queues[left % 2]->async([&, left] { hop(left - 1); });
  };
  hop(count);
  done.wait();
}

void SimulatedHops(benchmark::State& state) {
  constexpr std::int64_t count = 100'000;
  for (auto _ : state) {
    sim::Simulation simulation;
    sim::Life& life = simulation.startLife("bench");
    simulation.run(life, [&] { hops(life.dispatch(), count); });
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(SimulatedHops)->Unit(benchmark::kMillisecond);

void SimulatedDayWithATimerEachSecond(benchmark::State& state) {
  int firings = 0;
  for (auto _ : state) {
    sim::Simulation simulation;
    sim::Life& life = simulation.startLife("bench");
    auto timer = life.dispatch().makeTimer(life.dispatch().makeQueue({.label = "timers"}), [&] { ++firings; });
    timer->fireAt(simulation.clock().now(), Seconds(1));
    simulation.runFor(24h);
  }
  state.counters["firings"] = benchmark::Counter(firings, benchmark::Counter::kAvgIterations);
}
BENCHMARK(SimulatedDayWithATimerEachSecond)->Unit(benchmark::kMillisecond);

struct RealThreads {
  os::LinuxClock clock;
  os::LinuxDispatch dispatch{clock};
};

// The queue never runs empty.
void RealAsyncOntoABusyQueue(benchmark::State& state) {
  constexpr int count = 100'000;
  RealThreads real;
  auto queue = real.dispatch.makeQueue({.label = "busy"});
  for (auto _ : state) {
    for (int i = 0; i < count; ++i) queue->async([] {});
    queue->sync([] {});
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(RealAsyncOntoABusyQueue)->Unit(benchmark::kMillisecond)->UseRealTime();

// Each item is awaited by a thread outside the pool: two wake-ups a round.
void RealRoundTripOverAnIdleQueue(benchmark::State& state) {
  RealThreads real;
  auto queue = real.dispatch.makeQueue({.label = "idle"});
  Semaphore done(real.dispatch);
  for (auto _ : state) {
    queue->async([&] { done.signal(); });
    done.wait();
  }
}
BENCHMARK(RealRoundTripOverAnIdleQueue)->UseRealTime();

void RealHopsBetweenIdleQueues(benchmark::State& state) {
  constexpr std::int64_t count = 10'000;
  RealThreads real;
  for (auto _ : state) hops(real.dispatch, count);
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(RealHopsBetweenIdleQueues)->Unit(benchmark::kMillisecond)->UseRealTime();

// What the round trip would cost with nothing but two threads and two conditions: the floor.
void BareRoundTripBetweenTwoThreads(benchmark::State& state) {
  RealThreads real;
  Semaphore ask(real.dispatch);
  Semaphore answer(real.dispatch);
  bool ends = false;
  Semaphore ended(real.dispatch);
  real.dispatch.throwAwayThread("echo", [&] {
    for (;;) {
      ask.wait();
      if (ends) break;
      answer.signal();
    }
    ended.signal();
  });
  for (auto _ : state) {
    ask.signal();
    answer.wait();
  }
  ends = true;
  ask.signal();
  ended.wait();
}
BENCHMARK(BareRoundTripBetweenTwoThreads)->UseRealTime();

void UncontendedSync(benchmark::State& state) {
  RealThreads real;
  auto queue = real.dispatch.makeQueue({.label = "free"});
  for (auto _ : state) queue->sync([] {});
}
BENCHMARK(UncontendedSync);

}  // namespace
}  // namespace quillmark
