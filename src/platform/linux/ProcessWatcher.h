// ProcessWatcher: waits for the ends of child processes on one thread and reaps them.
// Threads:   thread-safe. The thread starts with the first child, and ends with stop() once no child is left.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <optional>

#include "base/UniqueFd.h"
#include "platform/dispatch.h"

namespace quillmark::os {

// One started process. The watcher and the owner share it.
class WatchedProcess final {
 public:
  WatchedProcess(Threads& threads, UniqueFd pidfd, Work onExit)
      : pidfd_(std::move(pidfd)), mutex_(threads), onExit_(std::move(onExit)) {}

  [[nodiscard]] int pidfd() const { return pidfd_.get(); }
  // By pidfd, so that it reaches this process or none.
  void signal(int number) const;
  [[nodiscard]] std::optional<int> exitStatus() EXCLUDES(mutex_);
  // The callback is not called after this; one that is running goes on.
  void forgetCallback() EXCLUDES(mutex_);
  // Needs a process that has ended. Reaps it and gives the callback to be called.
  [[nodiscard]] Work reap() EXCLUDES(mutex_);

 private:
  const UniqueFd pidfd_;
  Mutex mutex_;
  Work onExit_ GUARDED_BY(mutex_);
  std::optional<int> exitStatus_ GUARDED_BY(mutex_);
};

class ProcessWatcher final : public std::enable_shared_from_this<ProcessWatcher> {
 public:
  explicit ProcessWatcher(Dispatch& dispatch);

  // errno when the platform has no room for a watcher.
  [[nodiscard]] int prepare() EXCLUDES(mutex_);
  // Needs a successful prepare().
  void add(std::shared_ptr<WatchedProcess> process) EXCLUDES(mutex_);
  void stop() EXCLUDES(mutex_);

 private:
  [[nodiscard]] bool step();
  [[nodiscard]] bool finished() EXCLUDES(mutex_);
  void ended(std::uint64_t key) EXCLUDES(mutex_);

  const UniqueFd epoll_;
  const UniqueFd wake_;
  const std::shared_ptr<Queue> callbacks_;
  Dispatch& dispatch_;
  Mutex mutex_;
  std::map<std::uint64_t, std::shared_ptr<WatchedProcess>> processes_ GUARDED_BY(mutex_);
  std::uint64_t nextKey_ GUARDED_BY(mutex_) = 1;
  bool running_ GUARDED_BY(mutex_) = false;
  bool stopped_ GUARDED_BY(mutex_) = false;
};

}  // namespace quillmark::os
