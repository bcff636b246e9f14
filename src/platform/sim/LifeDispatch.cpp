#include "platform/sim/LifeDispatch.h"

#include "platform/linux/DispatchTimer.h"
#include "platform/sim/FiberLocks.h"

namespace quillmark::sim {

LifeDispatch::LifeDispatch(std::shared_ptr<LifeHost> host)
    : host_(std::move(host)), globals_{os::makeGlobalQueue(host_, QualityOfService::userInitiated),
                                       os::makeGlobalQueue(host_, QualityOfService::utility),
                                       os::makeGlobalQueue(host_, QualityOfService::background)} {}

std::unique_ptr<MutexBackend> LifeDispatch::makeMutex() { return makeFiberMutex(host_); }

std::unique_ptr<ConditionBackend> LifeDispatch::makeCondition() { return makeFiberCondition(host_); }

std::shared_ptr<Queue> LifeDispatch::makeQueue(QueueOptions options) {
  return std::make_shared<os::DispatchQueue>(host_, std::move(options));
}

std::shared_ptr<Queue> LifeDispatch::global(QualityOfService qualityOfService) {
  return globals_.at(static_cast<std::size_t>(qualityOfService));
}

std::unique_ptr<Timer> LifeDispatch::makeTimer(std::shared_ptr<Queue> queue, Work handler) {
  return std::make_unique<os::DispatchTimer>(host_, std::move(queue), std::move(handler));
}

void LifeDispatch::throwAwayThread(std::string label, Work work) {
  if (host_->gone()) return;
  auto spawned = std::make_unique<SpawnedWork>(SpawnedWork{std::move(label), std::move(work)});
  host_->scheduler().assign(*host_, {{}, std::move(spawned)});
  host_->switchPoint();
}

}  // namespace quillmark::sim
