// LifeDispatch: queues, timers and locks of one simulated process.
// Ownership: shares the life's host with what it makes.
// Threads:   confined to the simulation's thread.
#pragma once

#include <array>

#include "platform/dispatch.h"
#include "platform/sim/LifeHost.h"

namespace quillmark::sim {

class LifeDispatch final : public Dispatch {
 public:
  explicit LifeDispatch(std::shared_ptr<LifeHost> host);

  [[nodiscard]] std::unique_ptr<MutexBackend> makeMutex() override;
  [[nodiscard]] std::unique_ptr<ConditionBackend> makeCondition() override;
  [[nodiscard]] Clock& clock() override { return host_->clock(); }
  [[nodiscard]] std::shared_ptr<Queue> makeQueue(QueueOptions options) override;
  [[nodiscard]] std::shared_ptr<Queue> global(QualityOfService qualityOfService) override;
  [[nodiscard]] std::unique_ptr<Timer> makeTimer(std::shared_ptr<Queue> queue, Work handler) override;
  void throwAwayThread(std::string label, Work work) override;

 private:
  const std::shared_ptr<LifeHost> host_;
  const std::array<std::shared_ptr<Queue>, 3> globals_;
};

}  // namespace quillmark::sim
