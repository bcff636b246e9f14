#include "platform/sim/Simulation.h"

#include <exception>
#include <utility>

#include "platform/sim/LifeDispatch.h"
#include "platform/sim/SqliteInSimulation.h"

namespace quillmark::sim {
namespace {

constexpr int firstPid = 1001;

void requireOutside(const Scheduler& scheduler, const char* operation) {
  if (scheduler.running()) os::dieSaying(scheduler.seedLine() + operation + " called from a fiber");
}

}  // namespace

Life::Life(Scheduler& scheduler, std::shared_ptr<LifeHost> host, std::uint64_t seed)
    : host_(std::move(host)), dispatch_(std::make_unique<LifeDispatch>(host_)), random_(std::make_unique<Draws>(seed)),
      scheduler_(scheduler) {
  host_->setLife(this);
}

// One that is still busy stops with its machine, like a frozen one, and by now nobody wants to be told.
Life::~Life() {
  host_->dropEndings();
  if (isAlive() && !host_->isActive()) {
    end();
  } else if (isAlive()) {
    kill();
  }
  if (host_->isFrozen()) LifeHost::lose(host_);
}

const std::string& Life::name() const { return host_->name(); }
int Life::pid() const { return host_->pid(); }
Clock& Life::clock() { return host_->clock(); }
bool Life::isAlive() const { return !host_->gone(); }
void Life::atEnd(UniqueFunction<void()> work) { host_->addEnding(std::move(work)); }

Life* Life::current() {
  const Scheduler* const scheduler = Scheduler::current();
  return scheduler && scheduler->running() ? scheduler->running()->life->life() : nullptr;
}

void Life::spawn(std::string label, Work work) { dispatch_->throwAwayThread(std::move(label), std::move(work)); }

void Life::delay(std::chrono::nanoseconds span) {
  const MonotonicTime until = after(scheduler_.clock().monotonic(), span);
  while (scheduler_.clock().monotonic() < until) scheduler_.park({.what = "sleeps", .deadline = until});
}

void Life::kill() {
  if (!isAlive()) return;
  const bool itself = scheduler_.running() && scheduler_.running()->life == host_.get();
  scheduler_.removeLife(*host_);
  host_->freeze();
  if (itself) scheduler_.leaveForever();
  host_->runEndings();
}

void Life::end() {
  requireOutside(scheduler_, "end()");
  const MonotonicTime limit = after(scheduler_.clock().monotonic(), scheduler_.options().patience);
  while (isAlive() && host_->isActive()) {
    if (scheduler_.step() || scheduler_.serveAlarms() || scheduler_.advance(limit)) continue;
    const std::string text = scheduler_.seedLine() + "\"" + name() + "\" never ends:" + scheduler_.waits();
    kill();
    throw Deadlock(text);
  }
  if (!isAlive()) return;
  scheduler_.removeLife(*host_);
  const std::vector<Work> dropped = host_->alarms().takeAll();
  host_->runEndings();
}

Simulation::Simulation(SimulationOptions options) : scheduler_(std::make_unique<Scheduler>(std::move(options))) {
  runSqliteInSimulations();
}

Simulation::~Simulation() = default;

Life& Simulation::startLife(std::string name) {
  const int index = static_cast<int>(lives_.size());
  auto host = std::make_shared<LifeHost>(*scheduler_, std::move(name), firstPid + index);
  scheduler_->addLife(host);
  Draws seeds(scheduler_->options().seed + static_cast<std::uint64_t>(index) + 1);
  return *lives_.emplace_back(new Life(*scheduler_, std::move(host), seeds.next()));
}

bool Simulation::run(FunctionRef<void()> body) {
  if (!ownLife_ || !ownLife_->isAlive()) ownLife_ = &startLife("test");
  return run(*ownLife_, body);
}

bool Simulation::run(Life& life, FunctionRef<void()> body) {
  requireOutside(*scheduler_, "run()");
  bool ended = false;
  std::exception_ptr thrown;
  const Strand* strand = nullptr;
  life.spawn("body", [&, this] {
    strand = scheduler_->running();
    try {
      body();
    } catch (...) {
      thrown = std::current_exception();
    }
    ended = true;
  });
  const auto isStuck = [&] {
    return strand && strand->parked && !strand->wait.deadline &&
           clock().monotonic() - strand->parkedAt > scheduler_->options().patience;
  };
  while (!ended && life.isAlive()) {
    if (scheduler_->step() || scheduler_->serveAlarms()) continue;
    if (!isStuck() && scheduler_->advance(MonotonicTime::max())) continue;
    const std::string text = scheduler_->seedLine() + "the body never ends:" + scheduler_->waits();
    life.kill();  // the body refers to its caller's variables
    throw Deadlock(text);
  }
  scheduler_->runWhatIsRunnable();
  if (thrown) std::rethrow_exception(thrown);
  return ended;
}

void Simulation::runUntilIdle() {
  requireOutside(*scheduler_, "runUntilIdle()");
  scheduler_->runWhatIsRunnable();
}

void Simulation::runFor(std::chrono::nanoseconds span) {
  requireOutside(*scheduler_, "runFor()");
  const MonotonicTime end = after(clock().monotonic(), span);
  do {
    scheduler_->runWhatIsRunnable();
  } while (scheduler_->advance(end));
  scheduler_->clock().moveTo(end);
  scheduler_->runWhatIsRunnable();
}

void Simulation::jumpWallClock(Seconds by) {
  scheduler_->clock().jumpWall(std::chrono::duration_cast<std::chrono::nanoseconds>(by));
  scheduler_->clockWasSet();
}

void Simulation::sleepMachine(std::chrono::nanoseconds span) { scheduler_->clock().sleep(span); }
void Simulation::setTimeZone(std::string name) { scheduler_->clock().setTimeZone(std::move(name)); }
Clock& Simulation::clock() { return scheduler_->clock(); }
Random& Simulation::random() { return scheduler_->draws(); }
std::uint64_t Simulation::seed() const { return scheduler_->options().seed; }
std::uint64_t Simulation::steps() const { return scheduler_->steps(); }
void Simulation::yield() { scheduler_->yield(); }

std::uint64_t Simulation::lastDraw() const {
  std::uint64_t all = scheduler_->draws().last();
  for (const auto& life : lives_) all = all * 31 + static_cast<const Draws&>(*life->random_).last();
  return all;
}

}  // namespace quillmark::sim
