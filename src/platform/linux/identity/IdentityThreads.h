// IdentityThreads: looks at things that may never answer, each on a thread of its own that is given up after a while.
// Ownership: borrows the dispatch. Work owns all that it touches: it may outlive its caller.
// Threads:   thread-safe.
// Bounds:    threads at once, those given up included, until they end. Who finds none free waits, within the patience.
#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "base/ThreadSafety.h"
#include "base/UniqueFunction.h"
#include "platform/dispatch.h"
#include "platform/linux/Threads.h"

namespace quillmark::os {

class IdentityThreads final {
 public:
  struct Limits {
    unsigned most = 8;
    std::chrono::nanoseconds patience{std::chrono::seconds{5}};
  };
  IdentityThreads(Dispatch& dispatch, Limits limits);

  // What the work gives; nothing when it gives nothing, no thread came free or it took too long.
  template <class Result>
  [[nodiscard]] std::optional<Result> run(UniqueFunction<std::optional<Result>()> work) {
    const auto result = std::make_shared<std::optional<Result>>();
    if (!runWork([result, work = std::move(work)]() mutable { *result = work(); })) return std::nullopt;
    return std::move(*result);
  }
  [[nodiscard]] unsigned running() const;

 private:
  struct Slots {
    mutable NativeMutex mutex;
    NativeCondition changed;
    unsigned running GUARDED_BY(mutex) = 0;
  };
  struct Outcome {
    NativeMutex mutex;
    NativeCondition changed;
    bool done GUARDED_BY(mutex) = false;
  };

  // True when the work has run to its end; only then may the caller look at what it left.
  [[nodiscard]] bool runWork(Work work);
  [[nodiscard]] bool takeSlot(MonotonicTime deadline);
  static void giveBack(Slots& slots);

  Dispatch& dispatch_;
  const Limits limits_;
  const std::shared_ptr<Slots> slots_ = std::make_shared<Slots>();
};

}  // namespace quillmark::os
