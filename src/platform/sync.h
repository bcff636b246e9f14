// Mutex, ConditionVariable, Semaphore and Group over whatever threads the backend has.
// Ownership: each borrows the Threads it was made over, which must outlive it.
// Threads:   thread-safe. Waiting parks the caller; nothing here spins.
// No recursive mutex: public operations take the lock and call private ...Locked ones.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "base/ThreadSafety.h"
#include "base/UniqueFunction.h"
#include "platform/clock.h"

namespace quillmark {

using Work = UniqueFunction<void()>;
class Queue;

// The backend's half: made by Threads, used through the classes below.
class MutexBackend {
 public:
  virtual ~MutexBackend() = default;
  virtual void lock() = 0;
  virtual bool tryLock() = 0;
  virtual void unlock() = 0;
};
class ConditionBackend {
 public:
  virtual ~ConditionBackend() = default;
  // Releases the mutex while parked and holds it again on return; may wake early. False once the deadline passed.
  virtual bool wait(MutexBackend& mutex, std::optional<MonotonicTime> deadline) = 0;
  virtual void notifyOne() = 0;
  virtual void notifyAll() = 0;
};

// What waiting needs of a backend.
class Threads {
 public:
  virtual ~Threads() = default;
  [[nodiscard]] virtual std::unique_ptr<MutexBackend> makeMutex() = 0;
  [[nodiscard]] virtual std::unique_ptr<ConditionBackend> makeCondition() = 0;
  [[nodiscard]] virtual Clock& clock() = 0;
};

// Parks the caller for the span, on the monotonic clock.
void sleepFor(Threads& threads, std::chrono::nanoseconds duration);

class CAPABILITY("mutex") Mutex final {
 public:
  explicit Mutex(Threads& threads) : backend_(threads.makeMutex()) {}
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { backend_->lock(); }
  bool tryLock() TRY_ACQUIRE(true) { return backend_->tryLock(); }
  void unlock() RELEASE() { backend_->unlock(); }

 private:
  friend class ConditionVariable;
  std::unique_ptr<MutexBackend> backend_;
};

class SCOPED_CAPABILITY MutexLock final {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

class ConditionVariable final {
 public:
  explicit ConditionVariable(Threads& threads) : backend_(threads.makeCondition()) {}
  // Both may wake early: call them in a while over what is waited for.
  void wait(Mutex& mutex) REQUIRES(mutex) { backend_->wait(*mutex.backend_, std::nullopt); }
  // False once the deadline passed.
  bool waitUntil(Mutex& mutex, MonotonicTime deadline) REQUIRES(mutex) {
    return backend_->wait(*mutex.backend_, deadline);
  }
  void notifyOne() { backend_->notifyOne(); }
  void notifyAll() { backend_->notifyAll(); }

 private:
  std::unique_ptr<ConditionBackend> backend_;
};

// A value that can be reached only under its lock.
//   Guarded<std::set<std::string>> pending(threads);
//   const bool isNew = pending.with([&](auto& set) { return set.insert(key).second; });
template <class Value>
class Guarded final {
 public:
  template <class... Arguments>
  explicit Guarded(Threads& threads, Arguments&&... arguments)
      : mutex_(threads), value_(std::forward<Arguments>(arguments)...) {}

  template <class Use>
  decltype(auto) with(Use&& use) {
    MutexLock lock(mutex_);
    return std::forward<Use>(use)(value_);
  }

 private:
  Mutex mutex_;
  Value value_ GUARDED_BY(mutex_);
};

class Semaphore final {
 public:
  explicit Semaphore(Threads& threads, int count = 0)
      : threads_(threads), mutex_(threads), changed_(threads), count_(count) {}
  void signal();
  void wait();
  // False when the time passed first. A duration of 0 or less only looks.
  [[nodiscard]] bool waitFor(std::chrono::nanoseconds duration);

 private:
  Threads& threads_;
  Mutex mutex_;
  ConditionVariable changed_;
  int count_ GUARDED_BY(mutex_);
};

// Counts work under way; waits for, or is told of, its end.
class Group final {
 public:
  explicit Group(Threads& threads) : threads_(threads), mutex_(threads), ended_(threads) {}
  void enter();
  // Needs an enter() before it.
  void leave();
  void wait();
  // False when the time passed first.
  [[nodiscard]] bool waitFor(std::chrono::nanoseconds duration);
  // Puts the work on the queue once nothing is under way; at once if nothing is.
  void notify(std::shared_ptr<Queue> queue, Work work);

 private:
  struct Notice {
    std::shared_ptr<Queue> queue;
    Work work;
  };
  Threads& threads_;
  Mutex mutex_;
  ConditionVariable ended_;
  int underWay_ GUARDED_BY(mutex_) = 0;
  std::vector<Notice> notices_ GUARDED_BY(mutex_);
};

}  // namespace quillmark
