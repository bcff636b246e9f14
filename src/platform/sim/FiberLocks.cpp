#include "platform/sim/FiberLocks.h"

#include <algorithm>
#include <utility>

namespace quillmark::sim {
namespace {

// Strands that wait for one thing.
class Waiters final {
 public:
  explicit Waiters(Scheduler& scheduler) : scheduler_(scheduler) {}

  bool wait(Wait wait) {
    Strand* const strand = scheduler_.running();
    strands_.push_back(strand);
    const bool resumed = scheduler_.park(wait);
    if (!resumed) std::erase(strands_, strand);
    return resumed;
  }
  void resumeOne() {
    dropTimedOut();
    if (strands_.empty()) return;
    const auto drawn = strands_.begin() + static_cast<std::ptrdiff_t>(scheduler_.draws().below(strands_.size()));
    Strand* const strand = *drawn;
    strands_.erase(drawn);
    scheduler_.resume(*strand);
  }
  void resumeAll() {
    dropTimedOut();
    for (Strand* const strand : std::exchange(strands_, {})) scheduler_.resume(*strand);
  }

 private:
  // Whose time is over but who hasn't run since: a notice to one of them would be lost.
  void dropTimedOut() {
    std::erase_if(strands_, [](const Strand* strand) { return !strand->parked; });
  }

  Scheduler& scheduler_;
  std::vector<Strand*> strands_;
};

class FiberMutex final : public MutexBackend {
 public:
  explicit FiberMutex(std::shared_ptr<LifeHost> host) : host_(std::move(host)), waiters_(host_->scheduler()) {}

  void lock() override {
    if (host_->gone()) return;  // only what is left of the life's owner calls this, and nobody contends
    host_->switchPoint();
    while (held_) {
      host_->scheduler().requireFiber("locking a held mutex");
      waiters_.wait({.what = "waits for a mutex", .holder = holder_});
    }
    take();
  }
  bool tryLock() override {
    host_->switchPoint();
    if (held_) return false;
    take();
    return true;
  }
  void unlock() override {
    held_ = false;
    holder_ = nullptr;
    waiters_.resumeOne();
  }

 private:
  void take() {
    held_ = true;
    holder_ = host_->scheduler().running();
  }

  const std::shared_ptr<LifeHost> host_;
  Waiters waiters_;
  bool held_ = false;
  Strand* holder_ = nullptr;
};

class FiberCondition final : public ConditionBackend {
 public:
  explicit FiberCondition(std::shared_ptr<LifeHost> host) : host_(std::move(host)), waiters_(host_->scheduler()) {}

  bool wait(MutexBackend& mutex, std::optional<MonotonicTime> deadline) override {
    Scheduler& scheduler = host_->scheduler();
    scheduler.requireFiber("waiting on a condition");
    if (scheduler.draws().chance(scheduler.options().earlyWakePercent)) {
      mutex.unlock();
      scheduler.yield();
      mutex.lock();
      return !deadline || scheduler.clock().monotonic() < *deadline;
    }
    mutex.unlock();
    const bool notified = waiters_.wait({.what = "waits on a condition", .deadline = deadline});
    mutex.lock();
    return notified;
  }
  void notifyOne() override { waiters_.resumeOne(); }
  void notifyAll() override { waiters_.resumeAll(); }

 private:
  const std::shared_ptr<LifeHost> host_;
  Waiters waiters_;
};

}  // namespace

std::unique_ptr<MutexBackend> makeFiberMutex(std::shared_ptr<LifeHost> host) {
  return std::make_unique<FiberMutex>(std::move(host));
}

std::unique_ptr<ConditionBackend> makeFiberCondition(std::shared_ptr<LifeHost> host) {
  return std::make_unique<FiberCondition>(std::move(host));
}

}  // namespace quillmark::sim
