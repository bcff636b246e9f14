// VolumeQueueRegistry: one serial queue for each volume, on which the scheduler does all that it does to that volume.
// Clients' commands don't run there: against them the protection guard and the kernel's own refusals stand.
// Threads: thread-safe.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "base/Uuid.h"
#include "platform/sync.h"

namespace quillmark {

class Dispatch;

class VolumeQueueRegistry final {
 public:
  explicit VolumeQueueRegistry(Dispatch& dispatch);
  // The volume's queue, made at its first use and kept.
  [[nodiscard]] std::shared_ptr<Queue> queue(const std::string& volumeUUID);

 private:
  Dispatch& dispatch_;
  Guarded<std::map<VolumeUuid, std::shared_ptr<Queue>>> queues_;
};

}  // namespace quillmark
