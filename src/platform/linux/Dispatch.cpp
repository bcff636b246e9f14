#include "platform/linux/Dispatch.h"

#include "base/Error.h"
#include "platform/linux/DispatchTimer.h"

namespace quillmark::os {
namespace {

constexpr std::size_t throwAwayStackSize = 512 * 1024;

}  // namespace

LinuxDispatch::LinuxDispatch(Clock& clock, DispatchPoolOptions options)
    : pool_(std::make_shared<DispatchPool>(clock, std::move(options))),
      globals_{makeGlobalQueue(pool_, QualityOfService::userInitiated),
               makeGlobalQueue(pool_, QualityOfService::utility),
               makeGlobalQueue(pool_, QualityOfService::background)} {}

std::shared_ptr<Queue> LinuxDispatch::makeQueue(QueueOptions options) {
  return std::make_shared<DispatchQueue>(pool_, std::move(options));
}

std::shared_ptr<Queue> LinuxDispatch::global(QualityOfService qualityOfService) {
  return globals_.at(static_cast<std::size_t>(qualityOfService));
}

std::unique_ptr<Timer> LinuxDispatch::makeTimer(std::shared_ptr<Queue> queue, Work handler) {
  return std::make_unique<DispatchTimer>(pool_, std::move(queue), std::move(handler));
}

void LinuxDispatch::throwAwayThread(std::string label, Work work) {
  Work guarded = [label, work = std::move(work)]() mutable { runOrDie(label, work, [] { return std::string(); }); };
  pthread_t thread;
  if (const int error = startThread("qm-throwaway", throwAwayStackSize, guarded, thread)) {
    throw posixError("pthread_create", label, error);
  }
  ::pthread_detach(thread);
}

}  // namespace quillmark::os
