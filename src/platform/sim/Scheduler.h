// Scheduler: who runs next. Holds what is runnable, gives it turns on fibers in drawn order, and moves the machine's
// time. Ownership: owns the strands; shares each life's host while the life is alive. Threads:   confined to the
// simulation's thread. Invariant: a strand is at rest, runnable, running or parked; one of a life that is gone is never
// entered again.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/DispatchQueue.h"
#include "platform/sim/Draws.h"
#include "platform/sim/Fiber.h"
#include "platform/sim/MachineClock.h"
#include "platform/sim/Simulation.h"

namespace quillmark::sim {

struct Strand;

// Work outside every queue.
struct SpawnedWork {
  std::string label;
  Work work;
};

// What a strand has to run: an item of a queue, or else spawned work.
struct Assignment {
  os::ReadyItem item;
  std::unique_ptr<SpawnedWork> spawned;
};

// What can be given a turn: a strand that goes on, or else an assignment that needs one.
struct Runnable {
  LifeHost* life;
  Strand* strand;
  Assignment assignment;
};

// What a parked strand waits for, told when it never comes.
struct Wait {
  const char* what = "";
  const os::DispatchQueue* queue = nullptr;
  const Strand* holder = nullptr;
  std::optional<MonotonicTime> deadline = {};
};

// A fiber with what it runs.
struct Strand {
  std::unique_ptr<Fiber> fiber;
  LifeHost* life = nullptr;  // null at rest
  Assignment assignment;
  const os::DispatchQueue* queue = nullptr;  // whose item it runs
  const os::ItemFrame* frame = nullptr;
  Wait wait;
  bool parked = false;
  bool timedOut = false;
  std::uint64_t parkings = 0;
  MonotonicTime parkedAt;

  [[nodiscard]] const std::string& name() const { return queue ? queue->label() : assignment.spawned->label; }
};

class Scheduler final {
 public:
  explicit Scheduler(SimulationOptions options);
  ~Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  // The one whose fiber runs on this thread, or that of the simulation that exists in it; null when there is none.
  [[nodiscard]] static Scheduler* current();

  // From anywhere.
  void assign(LifeHost& life, Assignment assignment);
  void resume(Strand& strand);
  [[nodiscard]] Strand* running() const { return running_; }
  [[nodiscard]] const os::ItemFrame*& frame() { return running_ ? running_->frame : outsideFrame_; }
  [[nodiscard]] Draws& draws() { return draws_; }
  [[nodiscard]] MachineClock& clock() { return clock_; }
  [[nodiscard]] const SimulationOptions& options() const { return options_; }
  [[nodiscard]] std::uint64_t steps() const { return steps_; }
  [[nodiscard]] std::string seedLine() const;
  // Ends the process unless a fiber is running: only a fiber can wait.
  void requireFiber(const char* operation) const;

  // From a fiber.
  // Parks until resumed. False when the wait's deadline came first.
  bool park(Wait wait);
  void yield();
  void maybeYield() {
    if (running_ && draws_.chance(options_.switchPercent)) yield();
  }
  // The running strand's life is gone.
  [[noreturn]] void leaveForever();

  // From outside every fiber.
  // Gives a drawn runnable its turn; false when there is none.
  bool step();
  // Serves the alarms that are due; false when none is.
  bool serveAlarms();
  // The wall clock was set.
  void clockWasSet();
  // Moves time to the next alarm, not past the limit; false when there is none so early.
  bool advance(MonotonicTime limit);
  // Until neither a runnable nor a due alarm is left.
  void runWhatIsRunnable();

  void addLife(std::shared_ptr<LifeHost> life) { lives_.push_back(std::move(life)); }
  // Takes it and all that it was running out of everything.
  void removeLife(LifeHost& life);
  // What the parked strands wait for, a line each.
  [[nodiscard]] std::string waits() const;

 private:
  static void serve(LifeHost& life, std::vector<Work> due);
  [[nodiscard]] Strand& strandAtRest();
  [[nodiscard]] Runnable draw();
  void runAssignment(Strand& strand);

  const SimulationOptions options_;
  Scheduler* const outer_;
  Draws draws_;
  MachineClock clock_;
  std::vector<std::shared_ptr<LifeHost>> lives_;
  std::vector<Runnable> runnable_;
  std::vector<std::unique_ptr<Strand>> strands_;
  std::vector<Strand*> atRest_;
  Strand* running_ = nullptr;
  LifeHost* justKilledItself_ = nullptr;
  const os::ItemFrame* outsideFrame_ = nullptr;
  std::uint64_t steps_ = 0;
};

}  // namespace quillmark::sim
