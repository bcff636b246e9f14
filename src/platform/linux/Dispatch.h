// LinuxDispatch: queues, timers and locks over real threads.
// Ownership: borrows the clock. Destruction waits until every item has run; a service that must leave at once ends its
//            process without it.
// Threads:   thread-safe.
#pragma once

#include <array>

#include "platform/dispatch.h"
#include "platform/linux/DispatchPool.h"

namespace quillmark::os {

class LinuxDispatch final : public Dispatch {
 public:
  explicit LinuxDispatch(Clock& clock, DispatchPoolOptions options = {});
  ~LinuxDispatch() override { shutdown(); }

  [[nodiscard]] std::unique_ptr<MutexBackend> makeMutex() override { return makeNativeMutexBackend(); }
  [[nodiscard]] std::unique_ptr<ConditionBackend> makeCondition() override { return makeNativeConditionBackend(); }
  [[nodiscard]] Clock& clock() override { return pool_->clock(); }
  [[nodiscard]] std::shared_ptr<Queue> makeQueue(QueueOptions options) override;
  [[nodiscard]] std::shared_ptr<Queue> global(QualityOfService qualityOfService) override;
  [[nodiscard]] std::unique_ptr<Timer> makeTimer(std::shared_ptr<Queue> queue, Work handler) override;
  // Throws a POSIX error when the host gives no thread.
  void throwAwayThread(std::string label, Work work) override;

  // Timers and delayed items that are not due are dropped; items run out. Afterwards queues take nothing more.
  void shutdown() { pool_->shutdown(); }
  [[nodiscard]] std::size_t workerCount() { return pool_->workerCount(); }

 private:
  const std::shared_ptr<DispatchPool> pool_;
  const std::array<std::shared_ptr<Queue>, 3> globals_;
};

}  // namespace quillmark::os
