#include "platform/linux/TimerThread.h"

#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>

#include "base/Error.h"

namespace quillmark::os {
namespace {

constexpr std::size_t stackSize = 256 * 1024;

UniqueFd makeTimer(int clock) {
  const int fd = ::timerfd_create(clock, TFD_CLOEXEC | TFD_NONBLOCK);
  if (fd < 0) throw posixError("timerfd_create", "timer", errno);
  return UniqueFd(fd);
}

// An expiry of 0 would disarm the timer, so that the earliest is a nanosecond.
itimerspec expiry(timespec time) {
  if (time.tv_sec <= 0 && time.tv_nsec <= 0) time = {0, 1};
  return {{0, 0}, time};
}

itimerspec expiry(MonotonicTime time) {
  const std::int64_t nanoseconds = std::max<std::int64_t>(time.time_since_epoch().count(), 1);
  return expiry(
      timespec{static_cast<time_t>(nanoseconds / 1'000'000'000), static_cast<long>(nanoseconds % 1'000'000'000)});
}

itimerspec expiry(Date date) {
  constexpr double farthest = 1e12;
  const double seconds =
      std::isnan(date.secondsSince1970()) ? farthest : std::clamp(date.secondsSince1970(), 0.0, farthest);
  const double whole = std::floor(seconds);
  return expiry(
      timespec{static_cast<time_t>(whole), std::min(999'999'999L, static_cast<long>((seconds - whole) * 1e9))});
}

// EAGAIN when it was only re-armed, ECANCELED when the clock was set: either way the caller looks at all alarms.
// True when the timer was cancelled, because the clock was set.
bool drain(int fd) {
  std::uint64_t expirations;
  return ::read(fd, &expirations, sizeof expirations) < 0 && errno == ECANCELED;
}

}  // namespace

TimerThread::TimerThread(Clock& clock)
    : clock_(clock), monotonicTimer_(makeTimer(CLOCK_MONOTONIC)), wallTimer_(makeTimer(CLOCK_REALTIME)) {
  Work loop = [this] {
    while (step()) {
    }
  };
  if (const int error = startThread("qm-timers", stackSize, loop, thread_)) {
    throw posixError("pthread_create", "timers", error);
  }
}

AlarmId TimerThread::set(MonotonicTime time, Work work) {
  NativeLock lock(mutex_);
  if (stopped_) return 0;
  const AlarmId id = alarms_.add(time, std::move(work));
  rearm();
  return id;
}

AlarmId TimerThread::set(Date date, Work work) {
  NativeLock lock(mutex_);
  if (stopped_) return 0;
  const AlarmId id = alarms_.add(date, std::move(work));
  rearm();
  return id;
}

void TimerThread::clear(AlarmId id) {
  Work dropped;  // outlives the lock: what it captured may come back here
  NativeLock lock(mutex_);
  dropped = alarms_.remove(id);
}

// A timer that is armed for an alarm since cleared stays so: one wake-up for nothing is cheaper than a call at each
// clear.
void TimerThread::rearm() {
  if (const auto next = alarms_.earliestMonotonic(); next && (!armedMonotonic_ || *next < *armedMonotonic_)) {
    const itimerspec when = expiry(*next);
    ::timerfd_settime(monotonicTimer_.get(), TFD_TIMER_ABSTIME, &when, nullptr);
    armedMonotonic_ = next;
  }
  if (const auto next = alarms_.earliestWall(); next && (!armedWall_ || *next < *armedWall_)) {
    const itimerspec when = expiry(*next);
    const int flags = TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET;
    // ECANCELED tells that the clock was set meanwhile, which no read tells any more; the timer is armed all the same.
    if (::timerfd_settime(wallTimer_.get(), flags, &when, nullptr) != 0 && errno == ECANCELED) {
      clockWasSet_ = true;
      const itimerspec now = expiry(timespec{});
      ::timerfd_settime(monotonicTimer_.get(), TFD_TIMER_ABSTIME, &now, nullptr);
    }
    armedWall_ = next;
  }
}

bool TimerThread::step() {
  pollfd descriptors[] = {{monotonicTimer_.get(), POLLIN, 0}, {wallTimer_.get(), POLLIN, 0}};
  ::poll(descriptors, 2, -1);
  std::vector<Work> due;
  {
    NativeLock lock(mutex_);
    if (stopped_) return false;
    for (const pollfd& descriptor : descriptors) {
      if (descriptor.revents && drain(descriptor.fd)) clockWasSet_ = true;
    }
    due = alarms_.takeDue(clock_.monotonic(), clock_.now());
    if (std::exchange(clockWasSet_, false)) std::ranges::move(alarms_.takeWall(), std::back_inserter(due));
    armedMonotonic_.reset();
    armedWall_.reset();
    rearm();
  }
  for (Work& work : due) work();
  return true;
}

void TimerThread::stop() {
  std::vector<Work> dropped;
  {
    NativeLock lock(mutex_);
    if (std::exchange(stopped_, true)) return;
    dropped = alarms_.takeAll();
    const itimerspec now = expiry(timespec{});
    ::timerfd_settime(monotonicTimer_.get(), TFD_TIMER_ABSTIME, &now, nullptr);
  }
  ::pthread_join(thread_, nullptr);
}

}  // namespace quillmark::os
