#include "platform/sync.h"

#include <cstdio>
#include <cstdlib>

#include "platform/dispatch.h"
#include "platform/random.h"

namespace quillmark {

void sleepFor(Threads& threads, std::chrono::nanoseconds duration) {
  const MonotonicTime deadline = after(threads.clock().monotonic(), duration);
  Mutex mutex(threads);
  ConditionVariable never(threads);
  MutexLock lock(mutex);
  while (threads.clock().monotonic() < deadline) never.waitUntil(mutex, deadline);
}

void Semaphore::signal() {
  MutexLock lock(mutex_);
  ++count_;
  changed_.notifyOne();
}

void Semaphore::wait() {
  MutexLock lock(mutex_);
  while (count_ <= 0) changed_.wait(mutex_);
  --count_;
}

bool Semaphore::waitFor(std::chrono::nanoseconds duration) {
  const MonotonicTime deadline = after(threads_.clock().monotonic(), duration);
  MutexLock lock(mutex_);
  while (count_ <= 0) {
    if (threads_.clock().monotonic() >= deadline) return false;
    changed_.waitUntil(mutex_, deadline);
  }
  --count_;
  return true;
}

void Group::enter() {
  MutexLock lock(mutex_);
  ++underWay_;
}

void Group::leave() {
  std::vector<Notice> due;
  {
    MutexLock lock(mutex_);
    if (underWay_ <= 0) std::abort();
    if (--underWay_ > 0) return;
    due = std::move(notices_);
    notices_.clear();
    ended_.notifyAll();
  }
  for (Notice& notice : due) notice.queue->async(std::move(notice.work));
}

void Group::wait() {
  MutexLock lock(mutex_);
  while (underWay_ > 0) ended_.wait(mutex_);
}

bool Group::waitFor(std::chrono::nanoseconds duration) {
  const MonotonicTime deadline = after(threads_.clock().monotonic(), duration);
  MutexLock lock(mutex_);
  while (underWay_ > 0) {
    if (threads_.clock().monotonic() >= deadline) return false;
    ended_.waitUntil(mutex_, deadline);
  }
  return true;
}

void Group::notify(std::shared_ptr<Queue> queue, Work work) {
  {
    MutexLock lock(mutex_);
    if (underWay_ > 0) {
      notices_.push_back({std::move(queue), std::move(work)});
      return;
    }
  }
  queue->async(std::move(work));
}

void Queue::assertOn() const {
  if (isCurrent()) return;
  std::fprintf(stderr, "not on queue %s\n", label().c_str());
  std::abort();
}

Uuid Random::uuid() {
  Uuid uuid;
  for (std::size_t half = 0; half < 2; ++half) {
    const std::uint64_t bits = next();
    for (std::size_t i = 0; i < 8; ++i) uuid.bytes[half * 8 + i] = static_cast<std::uint8_t>(bits >> (8 * i));
  }
  uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0F) | 0x40);
  uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3F) | 0x80);
  return uuid;
}

}  // namespace quillmark
