// DispatchHost: what queues and timers need below them: something that runs ready items, parks callers and keeps
// alarms. The pool of threads is one, the simulator another; queues and timers are the same code over both. Ownership:
// shared by its queues and timers, which may outlive the dispatch that made them. Threads:   thread-safe.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/dispatch.h"

namespace quillmark::os {

class DispatchQueue;

// One queue that the running item is in: its own at the bottom, those that it entered by sync above.
struct ItemFrame {
  const DispatchQueue* queue;
  const ItemFrame* below;
};

// An item that its queue lets run now.
struct ReadyItem {
  std::shared_ptr<DispatchQueue> queue;
  Work work;
  bool barrier = false;
};

// Lets one waiter pass once it was opened.
class Gate {
 public:
  virtual ~Gate() = default;
  virtual void open() = 0;
  virtual void pass() = 0;
};

// 0 is no alarm.
using AlarmId = std::uint64_t;

class DispatchHost {
 public:
  virtual ~DispatchHost() = default;

  // Runs the item soon by DispatchQueue::run.
  virtual void submit(ReadyItem item) = 0;
  [[nodiscard]] virtual std::unique_ptr<Gate> makeGate(const DispatchQueue& awaited) = 0;
  // The top of the running item's stack of queues, for each thread of control its own.
  [[nodiscard]] virtual const ItemFrame*& frame() = 0;

  // The work runs once, outside every queue, and must be short.
  [[nodiscard]] virtual AlarmId setAlarm(MonotonicTime time, Work work) = 0;
  // Comes early when the wall clock is set, so that its owner looks at the clock anew.
  [[nodiscard]] virtual AlarmId setAlarm(Date date, Work work) = 0;
  virtual void clearAlarm(AlarmId alarm) = 0;
  [[nodiscard]] virtual Clock& clock() = 0;

  // True once nothing that is put here runs any more.
  [[nodiscard]] virtual bool gone() const = 0;
  // A place where the simulator may let another run.
  virtual void switchPoint() {}
  // What to print in front of a fatal line.
  [[nodiscard]] virtual std::string lastWords() const { return {}; }
};

}  // namespace quillmark::os
