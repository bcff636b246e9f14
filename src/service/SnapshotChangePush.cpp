#include "service/SnapshotChangePush.h"

#include "service/ClientConnections.h"

namespace quillmark {
namespace {

constexpr std::chrono::milliseconds coalescing{300};

}  // namespace

SnapshotChangePush::SnapshotChangePush(Dispatch& dispatch, ClientConnections& connections)
    : connections_(connections), queue_(dispatch.makeQueue({.label = "com.harrowfern.quillmark.snapshots-changed",
                                                            .qualityOfService = QualityOfService::utility})),
      pending_(dispatch) {}

void SnapshotChangePush::schedule(const std::string& volumeUUID) {
  const VolumeUuid volume(volumeUUID);
  const bool isNew = pending_.with([&](auto& pending) { return pending.insert(volume).second; });
  if (!isNew) return;
  queue_->asyncAfter(coalescing, [weak = weak_from_this(), volume] {
    if (const auto self = weak.lock()) self->send(volume);
  });
}

void SnapshotChangePush::send(const VolumeUuid& volume) {
  const bool stillDue = pending_.with([&](auto& pending) { return pending.erase(volume) > 0; });
  if (stillDue) connections_.push("snapshotsChangedWithVolumeUUID:", {volume.text()});
}

}  // namespace quillmark
