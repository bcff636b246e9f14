// Threads of the host and the locks that park them (pthreads(7)); what the dispatch layer and its mutexes are made of.
// Threads: thread-safe.
#pragma once

#include <pthread.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "base/FunctionRef.h"
#include "base/ThreadSafety.h"
#include "platform/sync.h"

namespace quillmark::os {

class CAPABILITY("mutex") NativeMutex final {
 public:
  NativeMutex() = default;
  NativeMutex(const NativeMutex&) = delete;
  NativeMutex& operator=(const NativeMutex&) = delete;
  ~NativeMutex() { ::pthread_mutex_destroy(&mutex_); }

  void lock() ACQUIRE() { ::pthread_mutex_lock(&mutex_); }
  bool tryLock() TRY_ACQUIRE(true) { return ::pthread_mutex_trylock(&mutex_) == 0; }
  void unlock() RELEASE() { ::pthread_mutex_unlock(&mutex_); }

 private:
  friend class NativeCondition;
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

class SCOPED_CAPABILITY NativeLock final {
 public:
  explicit NativeLock(NativeMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~NativeLock() RELEASE() { mutex_.unlock(); }
  NativeLock(const NativeLock&) = delete;
  NativeLock& operator=(const NativeLock&) = delete;

 private:
  NativeMutex& mutex_;
};

// Deadlines are of CLOCK_MONOTONIC.
class NativeCondition final {
 public:
  NativeCondition();
  NativeCondition(const NativeCondition&) = delete;
  NativeCondition& operator=(const NativeCondition&) = delete;
  ~NativeCondition() { ::pthread_cond_destroy(&condition_); }

  void wait(NativeMutex& mutex) REQUIRES(mutex) { ::pthread_cond_wait(&condition_, &mutex.mutex_); }
  // False once the deadline passed.
  bool waitUntil(NativeMutex& mutex, MonotonicTime deadline) REQUIRES(mutex);
  void notifyOne() { ::pthread_cond_signal(&condition_); }
  void notifyAll() { ::pthread_cond_broadcast(&condition_); }

 private:
  pthread_cond_t condition_;
};

[[nodiscard]] MonotonicTime monotonicNow();

// The mutexes and conditions of the platform's interface, over the two above.
[[nodiscard]] std::unique_ptr<MutexBackend> makeNativeMutexBackend();
[[nodiscard]] std::unique_ptr<ConditionBackend> makeNativeConditionBackend();

// Starts a thread that blocks every signal. Gives the errno of a failure and then leaves the work as it was.
[[nodiscard]] int startThread(const char* name, std::size_t stackSize, Work& work, pthread_t& thread);

// Work that lets an exception out ends the process, with the label on standard error behind what lastWords gives.
void runOrDie(const std::string& label, Work& work, FunctionRef<std::string()> lastWords);
// Prints the line on standard error and ends the process.
[[noreturn]] void dieSaying(const std::string& line);

}  // namespace quillmark::os
