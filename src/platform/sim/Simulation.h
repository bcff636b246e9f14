// Simulation: a machine in which processes run as fibers on one thread, with time and chance of its own.
//
//   Simulation simulation({.seed = 7});
//   Life& helper = simulation.startLife("helper");
//   simulation.run(helper, [&] {
//     auto queue = helper.dispatch().makeQueue({.label = "example"});
//     queue->asyncAfter(std::chrono::hours(24), [] { ... });   // costs no real time
//   });
//   simulation.runFor(std::chrono::hours(25));
//
// What is runnable runs in an order drawn by the seed; locks and queue operations are places where another may get the
// turn. Time stands still while anything is runnable and then goes on to the next timer.
// Ownership: owns its lives; their dispatches end with it.
// Threads:   confined to one thread; at most one simulation exists in a thread at a time.
// Errors:    Deadlock when somebody who is waited for can never go on.
// Invariant: the same seed and the same calls give the same run, to the last draw.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/Date.h"
#include "base/FunctionRef.h"
#include "platform/dispatch.h"
#include "platform/random.h"

namespace quillmark::sim {

class LifeHost;
class Scheduler;

struct SimulationOptions {
  std::uint64_t seed = 1;
  Date start = Date::from1970(1'772'355'600);  // 2026-03-01 09:00:00 UTC
  std::string timeZone = "UTC";
  // In how many of 100 locks and queue operations another fiber gets the turn, and in how many of 100 waits on a
  // condition the waiter wakes for nothing.
  unsigned switchPercent = 12;
  unsigned earlyWakePercent = 2;
  // The virtual time after which somebody who waits without a deadline counts as stuck though timers still fire.
  std::chrono::nanoseconds patience = std::chrono::hours(24 * 7);
  std::size_t stackSize = 512 * 1024;
};

// Its text names the seed and what each fiber concerned waits for.
class Deadlock final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One simulated process.
class Life final {
 public:
  Life(const Life&) = delete;
  Life& operator=(const Life&) = delete;
  ~Life();

  [[nodiscard]] const std::string& name() const;
  [[nodiscard]] int pid() const;
  [[nodiscard]] Dispatch& dispatch() { return *dispatch_; }
  [[nodiscard]] Clock& clock();
  [[nodiscard]] Random& random() { return *random_; }

  // A fiber outside every queue.
  void spawn(std::string label, Work work);
  // Freezes it: nothing of it is resumed or unwound, no timer fires, its queues take nothing. Memory that only it
  // refers to is lost on purpose. Does not return to a fiber of this life.
  void kill();
  // The end of a life that was told to stop: runs its fibers and items out, then drops its timers. Throws Deadlock, and
  // leaves it frozen, when one never ends. Not from a fiber.
  void end();
  [[nodiscard]] bool isAlive() const;

  // For simulated facilities.
  // Parks the calling fiber for a virtual span.
  void delay(std::chrono::nanoseconds span);
  // Runs the work when the life is killed or ended, outside it; the peers of a process learn of its end by this.
  void atEnd(UniqueFunction<void()> work);
  // The life whose fiber is running on this thread; null outside.
  [[nodiscard]] static Life* current();

 private:
  friend class Simulation;
  Life(Scheduler& scheduler, std::shared_ptr<LifeHost> host, std::uint64_t seed);

  const std::shared_ptr<LifeHost> host_;
  std::unique_ptr<Dispatch> dispatch_;
  std::unique_ptr<Random> random_;
  Scheduler& scheduler_;
};

class Simulation final {
 public:
  explicit Simulation(SimulationOptions options = {});
  ~Simulation();
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;

  // Lives share the machine's clocks and zone, nothing else.
  Life& startLife(std::string name);

  // None of these from a fiber.
  // Runs the body on a fiber, time going on as needed, then all that is runnable at that moment. What the body throws
  // reaches the caller. False when the life was killed under it. Throws Deadlock, and freezes the life, when the body
  // can never end.
  bool run(Life& life, FunctionRef<void()> body);
  // On a life of its own, kept from call to call.
  bool run(FunctionRef<void()> body);
  // Until nothing is runnable; time stands still.
  void runUntilIdle();
  void runFor(std::chrono::nanoseconds span);

  // The wall clock is set.
  void jumpWallClock(Seconds by);
  // The machine is suspended: the monotonic clock stands still, the wall clock and the time since boot go on.
  void sleepMachine(std::chrono::nanoseconds span);
  // A name of the tz database; an unknown one counts as UTC.
  void setTimeZone(std::string name);

  [[nodiscard]] Clock& clock();
  [[nodiscard]] Random& random();
  [[nodiscard]] std::uint64_t seed() const;
  // What the generators gave last, as one number: equal for two runs of one seed unless something undrawn decided.
  [[nodiscard]] std::uint64_t lastDraw() const;
  // Turns given to fibers so far.
  [[nodiscard]] std::uint64_t steps() const;

  // For simulated facilities: lets another runnable fiber go first. Outside fibers nothing happens.
  void yield();
  // The one of this thread; null when there is none.
  [[nodiscard]] static Simulation* current();
  [[nodiscard]] Scheduler& scheduler() { return *scheduler_; }

 private:
  const std::unique_ptr<Scheduler> scheduler_;
  std::vector<std::unique_ptr<Life>> lives_;
  Life* ownLife_ = nullptr;
};

}  // namespace quillmark::sim
