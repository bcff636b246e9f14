#include "platform/sim/Scheduler.h"

#include <algorithm>
#include <cstdlib>

#include "platform/sim/LifeHost.h"

namespace quillmark::sim {
namespace {

thread_local Scheduler* currentScheduler = nullptr;

}  // namespace

Scheduler::Scheduler(SimulationOptions options)
    : options_(std::move(options)), outer_(std::exchange(currentScheduler, this)), draws_(options_.seed),
      clock_(options_.start, options_.timeZone) {}

Scheduler::~Scheduler() { currentScheduler = outer_; }

Scheduler* Scheduler::current() { return currentScheduler; }

std::string Scheduler::seedLine() const { return "simulation of seed " + std::to_string(options_.seed) + ": "; }

void Scheduler::requireFiber(const char* operation) const {
  if (!running_) os::dieSaying(seedLine() + operation + " outside a fiber can't wait");
}

void Scheduler::assign(LifeHost& life, Assignment assignment) {
  life.countOne();
  runnable_.push_back({&life, nullptr, std::move(assignment)});
}

void Scheduler::resume(Strand& strand) {
  if (strand.life->gone()) return;
  if (!std::exchange(strand.parked, false)) std::abort();
  runnable_.push_back({strand.life, &strand, {}});
}

bool Scheduler::park(Wait wait) {
  requireFiber(wait.what);
  Strand& strand = *running_;
  strand.wait = wait;
  strand.parked = true;
  strand.timedOut = false;
  strand.parkedAt = clock_.monotonic();
  const std::uint64_t parking = ++strand.parkings;
  os::AlarmId alarm = 0;
  if (wait.deadline) {
    alarm = strand.life->setAlarm(*wait.deadline, [this, &strand, parking] {
      if (!strand.parked || strand.parkings != parking) return;
      strand.timedOut = true;
      resume(strand);
    });
  }
  strand.fiber->leave();
  if (alarm && !strand.timedOut) strand.life->clearAlarm(alarm);
  return !strand.timedOut;
}

void Scheduler::yield() {
  if (!running_) return;
  runnable_.push_back({running_->life, running_, {}});
  running_->fiber->leave();
}

void Scheduler::leaveForever() {
  justKilledItself_ = running_->life;
  for (;;) running_->fiber->leave();
}

Strand& Scheduler::strandAtRest() {
  if (atRest_.empty()) {
    Strand& strand = *strands_.emplace_back(std::make_unique<Strand>());
    strand.fiber = std::make_unique<Fiber>(options_.stackSize, [this, &strand] {
      for (;;) {
        runAssignment(strand);
        strand.fiber->leave();
      }
    });
    return strand;
  }
  Strand& strand = *atRest_.back();
  atRest_.pop_back();
  return strand;
}

void Scheduler::runAssignment(Strand& strand) {
  LifeHost& life = *strand.life;
  strand.queue = strand.assignment.item.queue.get();
  if (strand.queue) {
    if (auto next = os::DispatchQueue::run(std::move(strand.assignment.item)))
      assign(life, {std::move(*next), nullptr});
  } else {
    SpawnedWork& spawned = *strand.assignment.spawned;
    Work work = std::move(spawned.work);
    os::runOrDie(spawned.label, work, [this] { return seedLine(); });
  }
  strand.queue = nullptr;
  strand.assignment.spawned.reset();
  strand.life = nullptr;
  life.discountOne();
}

Runnable Scheduler::draw() {
  Runnable& drawn = runnable_[draws_.below(runnable_.size())];
  Runnable runnable = std::move(drawn);
  if (&drawn != &runnable_.back()) drawn = std::move(runnable_.back());
  runnable_.pop_back();
  return runnable;
}

bool Scheduler::step() {
  if (runnable_.empty()) return false;
  ++steps_;
  Runnable runnable = draw();
  Strand& strand = runnable.strand ? *runnable.strand : strandAtRest();
  if (!runnable.strand) {
    strand.life = runnable.life;
    strand.assignment = std::move(runnable.assignment);
  }
  running_ = &strand;
  strand.fiber->enter();
  running_ = nullptr;
  if (!strand.life) atRest_.push_back(&strand);
  if (LifeHost* const killed = std::exchange(justKilledItself_, nullptr)) killed->runEndings();
  return true;
}

void Scheduler::serve(LifeHost& life, std::vector<Work> due) {
  for (Work& work : due) {
    if (life.gone()) {
      life.keep(std::move(work));
    } else {
      work();
    }
  }
}

bool Scheduler::serveAlarms() {
  bool served = false;
  for (std::size_t i = 0; i < lives_.size(); ++i) {
    const std::shared_ptr<LifeHost> life = lives_[i];
    std::vector<Work> due = life->alarms().takeDue(clock_.monotonic(), clock_.now());
    served = served || !due.empty();
    serve(*life, std::move(due));
  }
  return served;
}

void Scheduler::clockWasSet() {
  for (std::size_t i = 0; i < lives_.size(); ++i) {
    const std::shared_ptr<LifeHost> life = lives_[i];
    serve(*life, life->alarms().takeWall());
  }
}

bool Scheduler::advance(MonotonicTime limit) {
  MonotonicTime next = MonotonicTime::max();
  for (const auto& life : lives_) {
    if (const auto time = life->alarms().earliestMonotonic()) next = std::min(next, *time);
    if (const auto date = life->alarms().earliestWall()) next = std::min(next, clock_.whenWallReads(*date));
  }
  if (next == MonotonicTime::max() || next > limit) return false;
  clock_.moveTo(next);
  return true;
}

void Scheduler::runWhatIsRunnable() {
  while (step() || serveAlarms()) {
  }
}

void Scheduler::removeLife(LifeHost& life) {
  life.leaveSimulation();
  for (Runnable& runnable : runnable_) {
    if (runnable.life == &life) life.keep(std::move(runnable));
  }
  std::erase_if(runnable_, [&](const Runnable& runnable) { return runnable.life == &life; });
  for (auto& strand : strands_) {
    if (strand->life == &life) life.keep(std::move(strand));
  }
  std::erase(strands_, nullptr);
  std::erase_if(lives_, [&](const auto& other) { return other.get() == &life; });
}

std::string Scheduler::waits() const {
  std::string text;
  for (const auto& strand : strands_) {
    if (!strand->life || !strand->parked) continue;
    text += "\n  " + strand->life->name() + ", \"" + strand->name() + "\": " + strand->wait.what;
    if (strand->wait.queue) text += " \"" + strand->wait.queue->label() + "\"";
    if (strand->wait.holder) text += " held by \"" + strand->wait.holder->name() + "\"";
    if (strand->wait.deadline) text += " until a deadline";
  }
  return text;
}

}  // namespace quillmark::sim
