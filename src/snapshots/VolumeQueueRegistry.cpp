#include "snapshots/VolumeQueueRegistry.h"

#include "platform/dispatch.h"

namespace quillmark {

VolumeQueueRegistry::VolumeQueueRegistry(Dispatch& dispatch) : dispatch_(dispatch), queues_(dispatch) {}

std::shared_ptr<Queue> VolumeQueueRegistry::queue(const std::string& volumeUUID) {
  const VolumeUuid volume(volumeUUID);
  return queues_.with([&](auto& queues) {
    std::shared_ptr<Queue>& slot = queues[volume];
    if (!slot) {
      slot = dispatch_.makeQueue({.label = "com.harrowfern.quillmark.volume." + volume.text().substr(0, 8),
                                  .qualityOfService = QualityOfService::utility});
    }
    return slot;
  });
}

}  // namespace quillmark
