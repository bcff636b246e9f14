// DispatchBackend: what a backend shows to the suites of dispatch, locks and clocks.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/FunctionRef.h"
#include "platform/dispatch.h"

namespace quillmark::contract {

using namespace std::chrono_literals;

class DispatchBackend {
 public:
  virtual ~DispatchBackend() = default;
  [[nodiscard]] virtual Dispatch& dispatch() = 0;
  // Runs the body outside every queue, where it may wait.
  virtual void run(FunctionRef<void()> body) = 0;
};

struct NamedBackend {
  std::string name;
  std::function<std::unique_ptr<DispatchBackend>()> make;
  friend void PrintTo(const NamedBackend& backend, std::ostream* out) { *out << backend.name; }
};

class DispatchSuite : public testing::TestWithParam<NamedBackend> {
 protected:
  // The test's body as a function of the dispatch, run where it may wait.
  void on(FunctionRef<void(Dispatch&)> body) {
    backend_->run([&] { body(backend_->dispatch()); });
  }

 private:
  const std::unique_ptr<DispatchBackend> backend_ = GetParam().make();
};

// What happened, told by several and read in the end.
class Events final {
 public:
  explicit Events(Threads& threads) : threads_(threads), mutex_(threads), changed_(threads) {}
  void add(std::string event) {
    MutexLock lock(mutex_);
    events_.push_back(std::move(event));
    changed_.notifyAll();
  }
  [[nodiscard]] std::vector<std::string> all() {
    MutexLock lock(mutex_);
    return events_;
  }
  // All events once there are so many, or after ten seconds.
  [[nodiscard]] std::vector<std::string> await(std::size_t count) {
    const MonotonicTime deadline = threads_.clock().monotonic() + 10s;
    MutexLock lock(mutex_);
    while (events_.size() < count && threads_.clock().monotonic() < deadline) changed_.waitUntil(mutex_, deadline);
    return events_;
  }

 private:
  Threads& threads_;
  Mutex mutex_;
  ConditionVariable changed_;
  std::vector<std::string> events_ GUARDED_BY(mutex_);
};

// How many are inside now, and the most that ever were.
class Crowd final {
 public:
  explicit Crowd(Threads& threads) : threads_(threads), counts_(threads) {}
  void visit(std::chrono::nanoseconds span) {
    counts_.with([](Counts& counts) { counts.most = std::max(counts.most, ++counts.inside); });
    sleepFor(threads_, span);
    counts_.with([](Counts& counts) { --counts.inside; });
  }
  [[nodiscard]] int inside() {
    return counts_.with([](Counts& counts) { return counts.inside; });
  }
  [[nodiscard]] int most() {
    return counts_.with([](Counts& counts) { return counts.most; });
  }

 private:
  struct Counts {
    int inside = 0;
    int most = 0;
  };
  Threads& threads_;
  Guarded<Counts> counts_;
};

}  // namespace quillmark::contract
