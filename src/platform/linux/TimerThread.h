// TimerThread: the thread on which alarms come, by two timer descriptors (timerfd_create(2)).
// The one of the wall clock is cancelled when that clock is set; every alarm that waits for a date comes then.
// Threads: thread-safe.
#pragma once

#include <pthread.h>

#include "base/UniqueFd.h"
#include "platform/linux/Threads.h"
#include "platform/linux/TimerAlarms.h"

namespace quillmark::os {

class TimerThread final {
 public:
  explicit TimerThread(Clock& clock);
  ~TimerThread() { stop(); }
  TimerThread(const TimerThread&) = delete;
  TimerThread& operator=(const TimerThread&) = delete;

  // Alarms that are set after stop() never come.
  AlarmId set(MonotonicTime time, Work work);
  AlarmId set(Date date, Work work);
  void clear(AlarmId id);
  // Runs the work on this thread, at once. False after stop().
  [[nodiscard]] bool runSoon(Work work) { return set(MonotonicTime(), std::move(work)) != 0; }
  // Drops every alarm and waits until one that came has been served.
  void stop();

 private:
  [[nodiscard]] bool step();
  void rearm() REQUIRES(mutex_);

  Clock& clock_;
  const UniqueFd monotonicTimer_;
  const UniqueFd wallTimer_;
  pthread_t thread_;

  NativeMutex mutex_;
  TimerAlarms alarms_ GUARDED_BY(mutex_);
  std::optional<MonotonicTime> armedMonotonic_ GUARDED_BY(mutex_);
  std::optional<Date> armedWall_ GUARDED_BY(mutex_);
  bool clockWasSet_ GUARDED_BY(mutex_) = false;  // and what waits for a date hasn't been told
  bool stopped_ GUARDED_BY(mutex_) = false;
};

}  // namespace quillmark::os
