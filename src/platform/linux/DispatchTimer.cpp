#include "platform/linux/DispatchTimer.h"

#include <algorithm>
#include <cmath>
#include <variant>

#include "platform/linux/Threads.h"

namespace quillmark::os {
namespace {

struct MonotonicSchedule {
  MonotonicTime next;
  std::optional<std::chrono::nanoseconds> interval;
};
struct WallSchedule {
  Date next;
  std::optional<Seconds> interval;
  bool isInStep = false;  // the next firing lies within an interval, unless the clock was set back
};
using Schedule = std::variant<std::monostate, MonotonicSchedule, WallSchedule>;

// The first moment of the timer's grid after now: whatever was missed is one firing.
MonotonicTime following(const MonotonicSchedule& schedule, MonotonicTime now) {
  constexpr std::chrono::nanoseconds longest = std::chrono::hours(24 * 36'500);
  const auto interval = std::clamp(*schedule.interval, std::chrono::nanoseconds(1), longest);
  const auto late = std::max(now - schedule.next, std::chrono::nanoseconds(0));
  return after(schedule.next, (late / interval + 1) * interval);
}

Date following(const WallSchedule& schedule, Date now) {
  const double interval = std::max(schedule.interval->count(), 1e-6);
  const double late = std::max((now - schedule.next).count(), 0.0);
  const Date next = schedule.next + Seconds((std::floor(late / interval) + 1) * interval);
  return next > now ? next : next + Seconds(interval);  // the division may have been rounded down
}

// The first moment of the same grid after now, from one that lies ahead of it.
Date pulledIn(const WallSchedule& schedule, Date now) {
  const double interval = std::max(schedule.interval->count(), 1e-6);
  const Date next = schedule.next - Seconds(std::floor((schedule.next - now).count() / interval) * interval);
  return next > now ? next : next + Seconds(interval);
}

}  // namespace

// A setting is known by its number; a firing of an older one does nothing.
class DispatchTimer::Shared final : public std::enable_shared_from_this<Shared> {
 public:
  Shared(std::shared_ptr<DispatchHost> host, std::shared_ptr<Queue> queue, Work handler)
      : host_(std::move(host)), queue_(std::move(queue)), handler_(std::move(handler)) {}

  void setAfter(std::chrono::nanoseconds delay, std::optional<std::chrono::nanoseconds> interval) {
    set(MonotonicSchedule{after(host_->clock().monotonic(), delay), interval});
  }

  void setAt(Date date, std::optional<Seconds> interval) {
    const bool isInStep = interval && date - host_->clock().now() <= *interval;
    set(WallSchedule{date, interval, isInStep});
  }

  void set(Schedule schedule) {
    NativeLock lock(mutex_);
    ++setting_;
    firesAgain_ = false;
    host_->clearAlarm(std::exchange(alarm_, 0));
    schedule_ = schedule;
    arm();
  }

 private:
  void arm() REQUIRES(mutex_) {
    auto due = [self = weak_from_this(), setting = setting_] {
      if (auto shared = self.lock()) shared->alarmCame(setting);
    };
    if (const auto* monotonic = std::get_if<MonotonicSchedule>(&schedule_)) {
      alarm_ = host_->setAlarm(monotonic->next, std::move(due));
    } else if (const auto* wall = std::get_if<WallSchedule>(&schedule_)) {
      alarm_ = host_->setAlarm(wall->next, std::move(due));
    }
  }

  void armForNext() REQUIRES(mutex_) {
    alarm_ = 0;
    if (auto* monotonic = std::get_if<MonotonicSchedule>(&schedule_); monotonic && monotonic->interval) {
      monotonic->next = following(*monotonic, host_->clock().monotonic());
      arm();
    } else if (auto* wall = std::get_if<WallSchedule>(&schedule_); wall && wall->interval) {
      wall->next = following(*wall, host_->clock().now());
      wall->isInStep = true;
      arm();
    }
  }

  // Waits on when the date hasn't come. Without the pull, a clock set back by a day would silence for a day what fires
  // every minute.
  bool cameEarly() REQUIRES(mutex_) {
    auto* wall = std::get_if<WallSchedule>(&schedule_);
    const Date now = host_->clock().now();
    if (!wall || wall->next <= now) return false;
    if (wall->isInStep) wall->next = pulledIn(*wall, now);
    arm();
    return true;
  }

  void alarmCame(std::uint64_t setting) {
    {
      NativeLock lock(mutex_);
      if (setting != setting_ || cameEarly()) return;
      armForNext();
      if (runs_) {
        firesAgain_ = true;
        return;
      }
      if (std::exchange(queued_, setting) == setting) return;
    }
    putOnQueue(setting);
  }

  void putOnQueue(std::uint64_t setting) {
    queue_->async([self = shared_from_this(), setting] { self->fire(setting); });
  }

  void fire(std::uint64_t setting) {
    if (!begin(setting)) return;
    handler_();
    if (const std::uint64_t again = end()) putOnQueue(again);
  }

  bool begin(std::uint64_t setting) {
    NativeLock lock(mutex_);
    if (setting != setting_ || runs_) return false;
    queued_ = 0;
    runs_ = true;
    return true;
  }

  // The setting to fire for at once, or 0.
  std::uint64_t end() {
    NativeLock lock(mutex_);
    runs_ = false;
    if (!std::exchange(firesAgain_, false)) return 0;
    queued_ = setting_;
    return setting_;
  }

  const std::shared_ptr<DispatchHost> host_;
  const std::shared_ptr<Queue> queue_;
  Work handler_;  // run by one firing at a time

  NativeMutex mutex_;
  Schedule schedule_ GUARDED_BY(mutex_);
  AlarmId alarm_ GUARDED_BY(mutex_) = 0;
  std::uint64_t setting_ GUARDED_BY(mutex_) = 0;
  std::uint64_t queued_ GUARDED_BY(mutex_) = 0;  // the setting whose firing waits on the queue
  bool runs_ GUARDED_BY(mutex_) = false;
  bool firesAgain_ GUARDED_BY(mutex_) = false;
};

DispatchTimer::DispatchTimer(std::shared_ptr<DispatchHost> host, std::shared_ptr<Queue> queue, Work handler)
    : shared_(std::make_shared<Shared>(std::move(host), std::move(queue), std::move(handler))) {}

DispatchTimer::~DispatchTimer() { shared_->set({}); }

void DispatchTimer::fireAfter(std::chrono::nanoseconds delay, std::optional<std::chrono::nanoseconds> interval) {
  shared_->setAfter(delay, interval);
}

void DispatchTimer::fireAt(Date date, std::optional<Seconds> interval) { shared_->setAt(date, interval); }

void DispatchTimer::cancel() { shared_->set({}); }

}  // namespace quillmark::os
