#include "scheduling/RotationPass.h"

#include <fmt/format.h>

#include "platform/SnapshotCalls.h"
#include "scheduling/SnapshotInventory.h"
#include "snapshots/SnapshotMutationScope.h"

namespace quillmark {
namespace {

std::string reasonFor(const std::string& name) {
  const auto cadence = SnapshotNameInfo::kind(name).cadence;
  return fmt::format(
      "Pruned by count rotation: the schedule keeps only the newest {} snapshots on this volume; this snapshot fell "
      "out "
      "of that window.",
      cadence ? word(*cadence) : std::string_view());
}

// Clients hear of the whole batch once.
class QuietBatch final {
 public:
  QuietBatch(const SchedulerServices& services, const std::string& volumeUUID)
      : services_(services), volumeUUID_(volumeUUID), deletions_(services.calls.beginDeletions()) {
    services_.mutations.enter(volumeUUID_);
  }
  ~QuietBatch() {
    if (services_.mutations.leave(volumeUUID_, changed)) services_.scheduleSnapshotsChanged(volumeUUID_);
  }
  QuietBatch(const QuietBatch&) = delete;
  QuietBatch& operator=(const QuietBatch&) = delete;

  bool changed = false;

 private:
  const SchedulerServices& services_;
  const std::string volumeUUID_;
  const std::unique_ptr<DeletionBatch> deletions_;
};

}  // namespace

RotationPass::Outcome RotationPass::run(const VolumeInfo& volume, const SchedulePolicy& policy) {
  if (!gate_.isOpen()) return {.succeeded = true};
  const auto own = inventory(services_, volume);
  if (!own) return {};
  const auto protectedXIDs = protectedXIDsFor(services_, "retention prune", volume);
  if (!protectedXIDs) return {};
  const auto candidates = PruneRules::rotationCandidates(snapsOf(*own, *protectedXIDs), policy);
  if (!candidates.empty()) return remove(volume, candidates, own->size());
  checkSoftCeiling(volume, own->size());
  return {.succeeded = true};
}

RotationPass::Outcome RotationPass::remove(const VolumeInfo& volume, const std::vector<PruneRules::Snap>& candidates,
                                           std::size_t count) {
  QuietBatch batch(services_, volume.uuid);
  Outcome outcome{.succeeded = true};
  for (const PruneRules::Snap& candidate : candidates) {
    const bool deleted = !isSnapshotInUse(services_, volume, candidate.xid) &&
                         deleter_.remove(volume, candidate.name, candidate.xid, reasonFor(candidate.name));
    outcome.succeeded = outcome.succeeded && deleted;
    outcome.deleted += deleted;
  }
  batch.changed = outcome.deleted > 0;
  std::size_t left = count - outcome.deleted;
  if (batch.changed) {
    if (const auto own = inventory(services_, volume)) left = own->size();
  }
  checkSoftCeiling(volume, left);
  return outcome;
}

void RotationPass::checkSoftCeiling(const VolumeInfo& volume, std::size_t count) {
  if (count <= ScheduleLimits::softSnapshotCeiling) return;
  events_.broadcastIfDue(
      volume, std::nullopt, ScheduleEvent::softCeilingExceeded, EventIntervals::softCeilingExceeded,
      fmt::format("Volume has {} Quillmark snapshots (soft limit {}).", count, ScheduleLimits::softSnapshotCeiling));
}

}  // namespace quillmark
