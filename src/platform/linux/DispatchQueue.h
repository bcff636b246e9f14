// DispatchQueue: the order of a queue: which item may start, who waits, what a sync caller must not do.
// Ownership: shared; items that are ready or run hold their queue.
// Threads:   thread-safe.
// Invariant: an item waits only behind a barrier, for the width, or behind another that waits.
#pragma once

#include <deque>
#include <optional>
#include <vector>

#include "platform/linux/DispatchHost.h"
#include "platform/linux/Threads.h"

namespace quillmark::os {

class DispatchQueue final : public Queue {
 public:
  DispatchQueue(std::shared_ptr<DispatchHost> host, QueueOptions options);

  [[nodiscard]] const std::string& label() const override { return options_.label; }
  void async(Work work) override { put(std::move(work), false); }
  void asyncBarrier(Work work) override { put(std::move(work), true); }
  void asyncAfter(std::chrono::nanoseconds delay, Work work) override;
  void sync(FunctionRef<void()> work) override { runOnCaller(work, false); }
  void syncBarrier(FunctionRef<void()> work) override { runOnCaller(work, true); }
  [[nodiscard]] bool isCurrent() const override;

  [[nodiscard]] const QueueOptions& options() const { return options_; }
  [[nodiscard]] const std::shared_ptr<DispatchHost>& host() const { return host_; }

  // For the host: runs the item to its end. Gives the first item that became ready by it; others were submitted.
  [[nodiscard]] static std::optional<ReadyItem> run(ReadyItem item);

 private:
  class Turn;
  struct Entry {
    Work work;
    Gate* gate;  // of a sync caller, who runs its work himself
    bool barrier;
  };
  struct Started {
    std::optional<Entry> first;
    std::vector<Entry> others;
  };

  void put(Work work, bool barrier);
  void runOnCaller(FunctionRef<void()> work, bool barrier);
  void refuseDeadlock() const;
  void waitForTurn(bool barrier);
  [[nodiscard]] std::optional<Entry> leave(bool barrier);
  [[nodiscard]] bool mayStart(bool barrier) const REQUIRES(mutex_);
  void noteStart(bool barrier) REQUIRES(mutex_);
  [[nodiscard]] Started startWaiting() REQUIRES(mutex_);
  [[noreturn]] void dieOfSync(const DispatchQueue& from, const char* reason) const;

  const std::shared_ptr<DispatchHost> host_;
  const QueueOptions options_;
  const unsigned width_;

  NativeMutex mutex_;
  std::deque<Entry> waiting_ GUARDED_BY(mutex_);
  unsigned running_ GUARDED_BY(mutex_) = 0;
  bool barrierRuns_ GUARDED_BY(mutex_) = false;
};

// The shared queue of a class holds nothing back: what waits in it, waits for the host.
[[nodiscard]] std::shared_ptr<Queue> makeGlobalQueue(std::shared_ptr<DispatchHost> host, QualityOfService quality);

}  // namespace quillmark::os
