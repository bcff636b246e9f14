// LinuxProcesses: programs started with pipes and watched by pidfd.
// A program starts with a clean slate: no descriptor but its three, default signals, an environment of PATH and LANG
// alone, "/" as directory, a session of its own.
// Ownership: borrows the dispatch, which must outlive it. Its children may outlive it: their ends are then told to
// nobody. Threads:   thread-safe. One thread waits for all ends and reaps them, so that none stays a zombie.
#pragma once

#include <memory>

#include "platform/Process.h"
#include "platform/dispatch.h"

namespace quillmark::os {

class ProcessWatcher;

class LinuxProcesses final : public Processes {
 public:
  explicit LinuxProcesses(Dispatch& dispatch);
  ~LinuxProcesses() override;
  std::unique_ptr<ChildProcess> prepare(ProcessRequest request) override;

 private:
  Dispatch& dispatch_;
  const std::shared_ptr<ProcessWatcher> watcher_;
};

}  // namespace quillmark::os
