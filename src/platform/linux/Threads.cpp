#include "platform/linux/Threads.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <exception>

namespace quillmark::os {
namespace {

timespec toTimespec(MonotonicTime time) {
  const std::int64_t nanoseconds = std::max<std::int64_t>(time.time_since_epoch().count(), 0);
  return {static_cast<time_t>(nanoseconds / 1'000'000'000), static_cast<long>(nanoseconds % 1'000'000'000)};
}

class MutexOfThreads final : public MutexBackend {
 public:
  void lock() override NO_THREAD_SAFETY_ANALYSIS { native.lock(); }
  bool tryLock() override NO_THREAD_SAFETY_ANALYSIS { return native.tryLock(); }
  void unlock() override NO_THREAD_SAFETY_ANALYSIS { native.unlock(); }
  NativeMutex native;
};

class ConditionOfThreads final : public ConditionBackend {
 public:
  bool wait(MutexBackend& mutex, std::optional<MonotonicTime> deadline) override NO_THREAD_SAFETY_ANALYSIS {
    NativeMutex& native = static_cast<MutexOfThreads&>(mutex).native;
    if (deadline) return condition_.waitUntil(native, *deadline);
    condition_.wait(native);
    return true;
  }
  void notifyOne() override { condition_.notifyOne(); }
  void notifyAll() override { condition_.notifyAll(); }

 private:
  NativeCondition condition_;
};

struct ThreadStart {
  const char* name;
  Work work;
};

void* threadMain(void* argument) {
  const std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(argument));
  ::pthread_setname_np(::pthread_self(), start->name);
  start->work();
  return nullptr;
}

class ThreadAttributes final {
 public:
  explicit ThreadAttributes(std::size_t stackSize) {
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, stackSize);
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_attr_setsigmask_np(&attributes, &all);
  }
  ~ThreadAttributes() { ::pthread_attr_destroy(&attributes); }
  ThreadAttributes(const ThreadAttributes&) = delete;
  ThreadAttributes& operator=(const ThreadAttributes&) = delete;
  pthread_attr_t attributes;
};

}  // namespace

NativeCondition::NativeCondition() {
  pthread_condattr_t attributes;
  ::pthread_condattr_init(&attributes);
  ::pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  ::pthread_cond_init(&condition_, &attributes);
  ::pthread_condattr_destroy(&attributes);
}

bool NativeCondition::waitUntil(NativeMutex& mutex, MonotonicTime deadline) {
  const timespec until = toTimespec(deadline);
  return ::pthread_cond_timedwait(&condition_, &mutex.mutex_, &until) != ETIMEDOUT;
}

MonotonicTime monotonicNow() {
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return MonotonicTime(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
}

std::unique_ptr<MutexBackend> makeNativeMutexBackend() { return std::make_unique<MutexOfThreads>(); }
std::unique_ptr<ConditionBackend> makeNativeConditionBackend() { return std::make_unique<ConditionOfThreads>(); }

int startThread(const char* name, std::size_t stackSize, Work& work, pthread_t& thread) {
  const ThreadAttributes attributes(stackSize);
  auto start = std::make_unique<ThreadStart>(ThreadStart{name, std::move(work)});
  const int error = ::pthread_create(&thread, &attributes.attributes, threadMain, start.get());
  if (error == 0) {
    static_cast<void>(start.release());  // the thread's now
  } else {
    work = std::move(start->work);
  }
  return error;
}

void runOrDie(const std::string& label, Work& work, FunctionRef<std::string()> lastWords) {
  try {
    work();
  } catch (const std::exception& exception) {
    dieSaying(lastWords() + "uncaught exception in an item of \"" + label + "\": " + exception.what());
  } catch (...) {
    dieSaying(lastWords() + "uncaught exception in an item of \"" + label + "\"");
  }
}

void dieSaying(const std::string& line) {
  const std::string text = line + "\n";
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
  std::abort();
}

}  // namespace quillmark::os
