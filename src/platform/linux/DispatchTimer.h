// DispatchTimer: a timer over a host's alarms, which puts its handler on a queue.
// Ownership: its shared half lives until the last firing under way ends.
// Threads:   thread-safe.
#pragma once

#include <memory>

#include "platform/linux/DispatchHost.h"

namespace quillmark::os {

class DispatchTimer final : public Timer {
 public:
  DispatchTimer(std::shared_ptr<DispatchHost> host, std::shared_ptr<Queue> queue, Work handler);
  ~DispatchTimer() override;

  void fireAfter(std::chrono::nanoseconds delay, std::optional<std::chrono::nanoseconds> interval) override;
  void fireAt(Date date, std::optional<Seconds> interval) override;
  void cancel() override;

 private:
  class Shared;
  const std::shared_ptr<Shared> shared_;
};

}  // namespace quillmark::os
