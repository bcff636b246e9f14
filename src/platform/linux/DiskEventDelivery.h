// DiskEventDelivery: brings disk events to the queue of whoever watches, until he no longer does.
// Ownership: shared by the watch and by events on their way.
// Threads:   thread-safe; the handler runs on the queue.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "platform/Disks.h"
#include "platform/dispatch.h"

namespace quillmark::os {

class DiskEventDelivery final : public std::enable_shared_from_this<DiskEventDelivery> {
 public:
  DiskEventDelivery(std::shared_ptr<Queue> queue, Disks::DiskEventHandler handler)
      : queue_(std::move(queue)), handler_(std::move(handler)) {}

  void deliver(DiskEvent event) {
    queue_->async([self = shared_from_this(), event = std::move(event)] {
      if (!self->ended_) self->handler_(event);
    });
  }
  void end() { ended_ = true; }

 private:
  const std::shared_ptr<Queue> queue_;
  Disks::DiskEventHandler handler_;  // confined to queue_
  std::atomic<bool> ended_{false};
};

}  // namespace quillmark::os
