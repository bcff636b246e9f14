// DispatchPool: the threads on which queues run their items.
// Ownership: shared by its queues, timers and workers; borrows the clock. shutdown() before the last of them goes.
// Threads:   thread-safe.
// Invariant: each ready item has a worker on its way to it; only items over the cap wait for one to come free.
#pragma once

#include <atomic>
#include <deque>
#include <vector>

#include "platform/linux/DispatchQueue.h"
#include "platform/linux/TimerThread.h"

namespace quillmark::os {

struct DispatchPoolOptions {
  // How long a worker without work stays.
  std::chrono::nanoseconds idleSpan = std::chrono::seconds(10);
  // The workers that items of concurrent queues may take up; a serial queue with work always gets one.
  unsigned cap = 512;
  // Told once, off every queue, with what blocks the workers.
  UniqueFunction<void(const std::string&)> onCapReached;
};

class DispatchPool final : public DispatchHost, public std::enable_shared_from_this<DispatchPool> {
 public:
  DispatchPool(Clock& clock, DispatchPoolOptions options);
  ~DispatchPool() override;

  void submit(ReadyItem item) override;
  [[nodiscard]] std::unique_ptr<Gate> makeGate(const DispatchQueue& awaited) override;
  [[nodiscard]] const ItemFrame*& frame() override;
  [[nodiscard]] AlarmId setAlarm(MonotonicTime time, Work work) override;
  [[nodiscard]] AlarmId setAlarm(Date date, Work work) override;
  void clearAlarm(AlarmId alarm) override { timers_.clear(alarm); }
  [[nodiscard]] Clock& clock() override { return clock_; }
  [[nodiscard]] bool gone() const override { return gone_.load(std::memory_order_relaxed); }

  // Drops alarms, lets items and what they put on queues run out, then ends the workers. Not from a worker.
  void shutdown();
  [[nodiscard]] std::size_t workerCount();

 private:
  struct Worker {
    pthread_t thread{};
    NativeCondition wake;
    bool idle = false;
    std::shared_ptr<DispatchQueue> queue;  // whose items it runs
  };

  [[nodiscard]] Worker* callWorker() REQUIRES(mutex_);
  void startWorker(Worker& worker) REQUIRES(mutex_);
  void startWorkerLater(Worker& worker);
  [[nodiscard]] std::size_t busyCount() const REQUIRES(mutex_);
  void workerMain(Worker& worker);
  [[nodiscard]] std::optional<ReadyItem> nextItem(Worker& worker, bool arriving);
  [[nodiscard]] std::optional<ReadyItem> takeItem(Worker& worker) REQUIRES(mutex_);
  [[nodiscard]] bool waitForWork(Worker& worker) REQUIRES(mutex_);
  void retire(Worker& worker) REQUIRES(mutex_);
  [[nodiscard]] Worker& enlist() REQUIRES(mutex_);
  void runItems(ReadyItem item, bool& background);
  void reportCap() REQUIRES(mutex_);
  [[nodiscard]] std::string blockedLabels() REQUIRES(mutex_);

  Clock& clock_;
  const std::chrono::nanoseconds idleSpan_;
  const unsigned cap_;
  const unsigned ownUid_;
  std::atomic<bool> gone_ = false;
  std::atomic<bool> overCap_ = false;

  NativeMutex mutex_;
  NativeCondition quiet_;
  std::deque<ReadyItem> ready_ GUARDED_BY(mutex_);
  std::deque<ReadyItem> excess_ GUARDED_BY(mutex_);
  std::vector<std::unique_ptr<Worker>> workers_ GUARDED_BY(mutex_);  // also those that ended, to be used again
  std::vector<Worker*> ended_ GUARDED_BY(mutex_);
  std::vector<Worker*> idle_ GUARDED_BY(mutex_);  // the one that went idle last at the end
  std::size_t arriving_ GUARDED_BY(mutex_) = 0;   // woken or started, and not here yet
  bool ending_ GUARDED_BY(mutex_) = false;
  UniqueFunction<void(const std::string&)> onCapReached_ GUARDED_BY(mutex_);
  TimerThread timers_;
};

}  // namespace quillmark::os
