#include "platform/linux/DispatchPool.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <map>

namespace quillmark::os {
namespace {

constexpr std::size_t workerStackSize = 2 * 1024 * 1024;
// Items that a worker runs of one queue before it serves those who wait because of the cap.
constexpr unsigned turnsUnderPressure = 64;

thread_local const ItemFrame* currentFrame = nullptr;

class ThreadGate final : public Gate {
 public:
  // The waiter may destroy the gate as soon as the mutex is free, so that it is notified before.
  void open() override {
    NativeLock lock(mutex_);
    open_ = true;
    opened_.notifyOne();
  }
  void pass() override {
    NativeLock lock(mutex_);
    while (!open_) opened_.wait(mutex_);
  }

 private:
  NativeMutex mutex_;
  NativeCondition opened_;
  bool open_ GUARDED_BY(mutex_) = false;
};

// The calling thread's, which differs from the process's while it acts for a user.
unsigned threadUid() { return static_cast<unsigned>(::syscall(SYS_geteuid)); }

// ioprio_set(2): the best-effort class takes its level from the nice value, the idle class waits for everybody else.
void setBackgroundPriority(bool background) {
  constexpr int whoProcess = 1;
  constexpr int idleClass = 3 << 13;
  ::syscall(SYS_ioprio_set, whoProcess, 0, background ? idleClass : 0);
}

}  // namespace

DispatchPool::DispatchPool(Clock& clock, DispatchPoolOptions options)
    : clock_(clock), idleSpan_(options.idleSpan), cap_(options.cap), ownUid_(threadUid()),
      onCapReached_(std::move(options.onCapReached)), timers_(clock) {}

DispatchPool::~DispatchPool() = default;

std::unique_ptr<Gate> DispatchPool::makeGate(const DispatchQueue&) { return std::make_unique<ThreadGate>(); }

const ItemFrame*& DispatchPool::frame() { return currentFrame; }

AlarmId DispatchPool::setAlarm(MonotonicTime time, Work work) { return timers_.set(time, std::move(work)); }
AlarmId DispatchPool::setAlarm(Date date, Work work) { return timers_.set(date, std::move(work)); }

std::size_t DispatchPool::workerCount() {
  NativeLock lock(mutex_);
  return workers_.size() - ended_.size();
}

std::size_t DispatchPool::busyCount() const { return workers_.size() - ended_.size() - idle_.size(); }

void DispatchPool::submit(ReadyItem item) {
  Worker* woken = nullptr;
  {
    NativeLock lock(mutex_);
    if (ending_) return;
    const bool crowded = arriving_ <= ready_.size() && busyCount() >= cap_;
    if (crowded) reportCap();
    if (crowded && item.queue->options().concurrent) {
      excess_.push_back(std::move(item));
      overCap_.store(true, std::memory_order_relaxed);
      return;
    }
    ready_.push_back(std::move(item));
    if (arriving_ < ready_.size()) woken = callWorker();
  }
  if (woken) woken->wake.notifyOne();  // workers' memory stays until the pool goes
}

// Gives an idle worker that the caller has to wake, or null when a new one is on its way.
DispatchPool::Worker* DispatchPool::callWorker() {
  ++arriving_;
  if (!idle_.empty()) {
    Worker* const worker = idle_.back();
    idle_.pop_back();
    worker->idle = false;
    return worker;
  }
  Worker& worker = enlist();
  // A thread inherits the identity of its creator, and one that acts for a user must not hand that on to the pool.
  const bool isOurs = threadUid() == ownUid_;
  if (isOurs || !timers_.runSoon([self = shared_from_this(), &worker] { self->startWorkerLater(worker); })) {
    startWorker(worker);
  }
  return nullptr;
}

void DispatchPool::startWorkerLater(Worker& worker) {
  NativeLock lock(mutex_);
  startWorker(worker);
}

DispatchPool::Worker& DispatchPool::enlist() {
  if (!ended_.empty()) {
    Worker& worker = *ended_.back();
    ended_.pop_back();
    return worker;
  }
  return *workers_.emplace_back(std::make_unique<Worker>());
}

void DispatchPool::startWorker(Worker& worker) {
  Work main = [self = shared_from_this(), &worker] { self->workerMain(worker); };
  if (startThread("qm-worker", workerStackSize, main, worker.thread) == 0) return;
  // The host gives no more threads: its item waits like one over the cap.
  --arriving_;
  ended_.push_back(&worker);
  if (ended_.size() == workers_.size()) dieSaying("no thread can be started");
  reportCap();
  if (ready_.empty()) return;
  excess_.push_back(std::move(ready_.front()));
  ready_.pop_front();
  overCap_.store(true, std::memory_order_relaxed);
}

void DispatchPool::workerMain(Worker& worker) {
  bool background = false;
  setBackgroundPriority(background);  // a thread inherits the class of its creator, too
  for (auto item = nextItem(worker, true); item; item = nextItem(worker, false)) runItems(std::move(*item), background);
}

void DispatchPool::runItems(ReadyItem item, bool& background) {
  const bool shares = item.queue->options().concurrent;
  const bool wantsBackground = item.queue->options().qualityOfService == QualityOfService::background;
  if (std::exchange(background, wantsBackground) != wantsBackground) setBackgroundPriority(wantsBackground);
  for (unsigned turns = 1;; ++turns) {
    auto next = DispatchQueue::run(std::move(item));
    if (!next) return;
    item = std::move(*next);
    if (shares && turns >= turnsUnderPressure && overCap_.load(std::memory_order_relaxed)) break;
  }
  NativeLock lock(mutex_);
  excess_.push_back(std::move(item));
}

std::optional<ReadyItem> DispatchPool::nextItem(Worker& worker, bool arriving) {
  NativeLock lock(mutex_);
  worker.queue.reset();
  if (arriving) --arriving_;
  for (;;) {
    if (auto item = takeItem(worker)) return item;
    if (busyCount() == 1 && arriving_ == 0) quiet_.notifyAll();
    if (!waitForWork(worker)) return std::nullopt;
  }
}

std::optional<ReadyItem> DispatchPool::takeItem(Worker& worker) {
  if (ready_.empty() && (excess_.empty() || busyCount() > cap_)) return std::nullopt;
  std::deque<ReadyItem>& from = ready_.empty() ? excess_ : ready_;
  ReadyItem item = std::move(from.front());
  from.pop_front();
  if (excess_.empty()) overCap_.store(false, std::memory_order_relaxed);
  worker.queue = item.queue;
  return item;
}

bool DispatchPool::waitForWork(Worker& worker) {
  if (ending_) return false;
  worker.idle = true;
  idle_.push_back(&worker);
  const MonotonicTime until = monotonicNow() + idleSpan_;
  while (worker.idle) {
    if (worker.wake.waitUntil(mutex_, until) || !worker.idle) continue;
    retire(worker);
    return false;
  }
  if (ending_) return false;
  --arriving_;
  return true;
}

void DispatchPool::retire(Worker& worker) {
  worker.idle = false;
  std::erase(idle_, &worker);
  ended_.push_back(&worker);
  ::pthread_detach(worker.thread);
}

void DispatchPool::reportCap() {
  if (!onCapReached_) return;
  static_cast<void>(
      timers_.runSoon([report = std::move(onCapReached_), text = blockedLabels()]() mutable { report(text); }));
  onCapReached_ = nullptr;
}

std::string DispatchPool::blockedLabels() {
  std::map<std::string, std::size_t> counts;
  for (const auto& worker : workers_) {
    if (worker->queue) ++counts[worker->queue->label()];
  }
  for (const ReadyItem& item : ready_) ++counts[item.queue->label()];
  std::string text = std::to_string(busyCount()) + " threads are busy, in";
  for (const auto& [label, count] : counts) text += " \"" + label + "\" " + std::to_string(count) + ",";
  text.back() = '.';
  return text;
}

void DispatchPool::shutdown() {
  timers_.stop();
  std::vector<pthread_t> threads;
  {
    NativeLock lock(mutex_);
    if (ending_) return;
    while (!ready_.empty() || !excess_.empty() || arriving_ > 0 || busyCount() > 0) {
      quiet_.wait(mutex_);
    }
    ending_ = true;
    gone_ = true;
    for (Worker* worker : idle_) {
      threads.push_back(worker->thread);
      ended_.push_back(worker);
      worker->idle = false;
      worker->wake.notifyOne();
    }
    idle_.clear();
  }
  for (const pthread_t thread : threads) ::pthread_join(thread, nullptr);
}

}  // namespace quillmark::os
