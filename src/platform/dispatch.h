// Queues, timers and threads: where all work runs.
//
//   auto queue = dispatch.makeQueue({.label = "com.harrowfern.quillmark.example"});
//   queue->async([self = weak_from_this()] { if (auto owner = self.lock()) owner->step(); });
//
// Items don't throw: one that does ends the process with its queue's label. An item may wait on mutexes, conditions
// and other queues; the pool then grows up to its cap and says in the log what blocks when it is reached.
// Threads: every operation is thread-safe.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "base/Date.h"
#include "base/FunctionRef.h"
#include "base/ThreadSafety.h"
#include "base/UniqueFunction.h"
#include "platform/sync.h"

namespace quillmark {

enum class QualityOfService { userInitiated, utility, background };

// Queues that wait for each other by sync() do so in ascending rank; against the rank is a deadlock in waiting and ends
// the process with both labels. Unranked queues take part in no order.
enum class QueueRank { none = 0, volume = 1, epoch = 2 };

struct QueueOptions {
  std::string label;
  bool concurrent = false;
  QualityOfService qualityOfService = QualityOfService::userInitiated;
  // The most items of a concurrent queue that run at once.
  unsigned width = 64;
  QueueRank rank = QueueRank::none;
};

// Ownership: shared; a queue with work lives until the work is done, whoever lets go of it.
class CAPABILITY("queue") Queue : public std::enable_shared_from_this<Queue> {
 public:
  virtual ~Queue() = default;
  Queue() = default;
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  [[nodiscard]] virtual const std::string& label() const = 0;

  // First in, first started. Never waits.
  virtual void async(Work work) = 0;
  // Runs alone on its queue, after all that was put there before it and before all that comes after it.
  virtual void asyncBarrier(Work work) = 0;
  // After a span of monotonic time.
  virtual void asyncAfter(std::chrono::nanoseconds delay, Work work) = 0;
  // Runs on the caller, in the queue's order, and returns when done; what the work throws reaches the caller. Onto a
  // queue that the caller is already in, or against the rank, it ends the process with both labels.
  virtual void sync(FunctionRef<void()> work) = 0;
  virtual void syncBarrier(FunctionRef<void()> work) = 0;

  // True when the running item is of this queue, or reached it by sync.
  [[nodiscard]] virtual bool isCurrent() const = 0;
  // Ends the process with the label unless isCurrent().
  void assertOn() const ASSERT_CAPABILITY(this);
};

// Ownership: dropping it cancels it; a handler that is running ends, none starts afterwards.
class Timer {
 public:
  virtual ~Timer() = default;
  // Monotonic: sleep doesn't count. Setting anew replaces what was set.
  virtual void fireAfter(std::chrono::nanoseconds delay, std::optional<std::chrono::nanoseconds> interval = {}) = 0;
  // Wall clock: follows it when it is set. A repeating timer that missed firings, asleep or by a set clock, fires once;
  // one whose clock was set back goes on in its grid, with its next firing never more than an interval away.
  virtual void fireAt(Date date, std::optional<Seconds> interval = {}) = 0;
  virtual void cancel() = 0;
};

class Dispatch : public Threads {
 public:
  [[nodiscard]] virtual std::shared_ptr<Queue> makeQueue(QueueOptions options) = 0;
  // The shared concurrent queue of a class.
  [[nodiscard]] virtual std::shared_ptr<Queue> global(QualityOfService qualityOfService) = 0;
  // The handler runs on the queue, never twice at once. Unset until fireAfter or fireAt.
  [[nodiscard]] virtual std::unique_ptr<Timer> makeTimer(std::shared_ptr<Queue> queue, Work handler) = 0;
  // A thread outside the pool for work that may never come back: it owns all that it touches and may be abandoned.
  virtual void throwAwayThread(std::string label, Work work) = 0;
};

}  // namespace quillmark
