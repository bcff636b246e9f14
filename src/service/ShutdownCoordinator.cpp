#include "service/ShutdownCoordinator.h"

#include <fmt/format.h>

#include "base/HelperLog.h"

namespace quillmark {

ShutdownCoordinator::ShutdownCoordinator(Dispatch& dispatch, HelperLog& log, Hooks hooks)
    : dispatch_(dispatch), log_(log), hooks_(std::move(hooks)),
      queue_(dispatch.makeQueue({.label = "com.harrowfern.quillmark.helper.drain"})), lock_(dispatch) {}

void ShutdownCoordinator::add(const Uuid& id, std::vector<std::shared_ptr<Queue>> queues) {
  MutexLock lock(lock_);
  registrations_[id] = std::move(queues);
}

void ShutdownCoordinator::remove(const Uuid& id) {
  MutexLock lock(lock_);
  registrations_.erase(id);
}

bool ShutdownCoordinator::isDraining() {
  MutexLock lock(lock_);
  return draining_;
}

bool ShutdownCoordinator::admit(FunctionRef<void()> enqueue) {
  MutexLock lock(lock_);
  if (draining_) return false;
  enqueue();
  return true;
}

std::optional<std::vector<std::shared_ptr<Queue>>> ShutdownCoordinator::startDraining() {
  MutexLock lock(lock_);
  if (draining_) return std::nullopt;
  draining_ = true;
  std::vector<std::shared_ptr<Queue>> queues;
  for (const auto& [id, registered] : registrations_) {
    queues.insert(queues.end(), registered.begin(), registered.end());
  }
  return queues;
}

bool ShutdownCoordinator::requestQuit(FunctionRef<void(bool)> tell, std::chrono::seconds timeout) {
  auto queues = startDraining();
  if (!queues) {
    tell(false);
    return false;
  }
  log_.info(fmt::format("quit requested: draining outstanding work (timeout {}s)", timeout.count()));
  tell(true);
  queue_->async([this, queues = std::move(*queues), timeout] { drain(queues, timeout); });
  return true;
}

void ShutdownCoordinator::drain(const std::vector<std::shared_ptr<Queue>>& queues, std::chrono::seconds timeout) {
  if (hooks_.quiesce) hooks_.quiesce();
  // An empty item at the end of a queue, alone there, has run when all work before it has. Shared: it may outlive the wait.
  const auto outstanding = std::make_shared<Group>(dispatch_);
  for (const auto& queue : queues) {
    outstanding->enter();
    queue->asyncBarrier([outstanding] { outstanding->leave(); });
  }
  if (outstanding->waitFor(timeout)) {
    log_.info("quit: drain complete; exiting");
  } else {
    log_.warn(fmt::format(
        "quit: drain timed out after {}s; exiting anyway (in-flight work is abandoned and retried by the next "
        "helper)",
        timeout.count()));
  }
  if (hooks_.flush) hooks_.flush();
  hooks_.exitProcess();
}

}  // namespace quillmark
