// ShutdownCoordinator: one drain from open to gone. While draining, new mutations and connections are refused; what was
// queued before runs out, within a limit; then the process exits with status 0.
// Threads: thread-safe; the lock is held for flag and map work, and for putting admitted work on its queue.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "base/FunctionRef.h"
#include "base/Uuid.h"
#include "platform/dispatch.h"

namespace quillmark {

class HelperLog;

class ShutdownCoordinator final {
 public:
  static constexpr std::chrono::seconds timeLimit{60};

  struct Hooks {
    std::function<void()> quiesce;      // stops timers and whatever makes new work
    std::function<void()> flush;        // lets the last replies reach their clients; bounded
    std::function<void()> exitProcess;  // does not return in the product
  };
  ShutdownCoordinator(Dispatch& dispatch, HelperLog& log, Hooks hooks);

  // The queues of one client, waited for by the drain.
  void add(const Uuid& id, std::vector<std::shared_ptr<Queue>> queues);
  void remove(const Uuid& id);
  [[nodiscard]] bool isDraining();
  // Runs the work unless a drain is under way. One step: the drain waits for whatever the work puts on queues that were
  // added. The work runs under the lock and must not wait.
  [[nodiscard]] bool admit(FunctionRef<void()> enqueue);
  // True when this call started the drain, false when one was under way. Returns at once. The answer is told first, so
  // that whoever asked can be sent it before the process goes.
  [[nodiscard]] bool requestQuit(
      FunctionRef<void(bool started)> tell = [](bool) {}, std::chrono::seconds timeout = timeLimit);

 private:
  // The queues to wait for; absent when a drain is under way.
  [[nodiscard]] std::optional<std::vector<std::shared_ptr<Queue>>> startDraining();
  void drain(const std::vector<std::shared_ptr<Queue>>& queues, std::chrono::seconds timeout);

  Dispatch& dispatch_;
  HelperLog& log_;
  const Hooks hooks_;

  // Serial, so that it gets a thread even while all of the pool's are blocked.
  const std::shared_ptr<Queue> queue_;

  Mutex lock_;
  bool draining_ GUARDED_BY(lock_) = false;
  std::map<Uuid, std::vector<std::shared_ptr<Queue>>> registrations_ GUARDED_BY(lock_);
};

}  // namespace quillmark
