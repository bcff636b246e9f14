#include "snapshots/SnapshotMutationScope.h"

namespace quillmark {

bool SnapshotMutationScope::isOpen(const std::string& volumeUUID) {
  return depth_.with([volume = VolumeUuid(volumeUUID)](const auto& depth) { return depth.contains(volume); });
}

void SnapshotMutationScope::enter(const std::string& volumeUUID) {
  depth_.with([volume = VolumeUuid(volumeUUID)](auto& depth) { ++depth[volume]; });
}

bool SnapshotMutationScope::leave(const std::string& volumeUUID) {
  return depth_.with([volume = VolumeUuid(volumeUUID)](auto& depth) {
    const auto found = depth.find(volume);
    if (found == depth.end()) return true;
    if (--found->second > 0) return false;
    depth.erase(found);
    return true;
  });
}

}  // namespace quillmark
