#include "snapshots/SnapshotMutationScope.h"

namespace quillmark {

bool SnapshotMutationScope::isOpen(const std::string& volumeUUID) {
  return open_.with([volume = VolumeUuid(volumeUUID)](const auto& open) { return open.contains(volume); });
}

bool SnapshotMutationScope::holdsBack(const std::string& volumeUUID) {
  return open_.with([volume = VolumeUuid(volumeUUID)](auto& open) {
    const auto found = open.find(volume);
    if (found == open.end()) return false;
    found->second.changed = true;
    return true;
  });
}

void SnapshotMutationScope::enter(const std::string& volumeUUID) {
  open_.with([volume = VolumeUuid(volumeUUID)](auto& open) { ++open[volume].depth; });
}

bool SnapshotMutationScope::leave(const std::string& volumeUUID, bool changed) {
  return open_.with([volume = VolumeUuid(volumeUUID), changed](auto& open) {
    const auto found = open.find(volume);
    if (found == open.end()) return true;
    found->second.changed = found->second.changed || changed;
    if (--found->second.depth > 0) return false;
    const bool anything = found->second.changed;
    open.erase(found);
    return anything;
  });
}

}  // namespace quillmark
