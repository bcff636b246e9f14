#include "scheduling/LifespanSweep.h"

#include <fmt/format.h>

#include "platform/SnapshotCalls.h"
#include "platform/dispatch.h"
#include "scheduling/PeopleText.h"
#include "scheduling/SchedulePersistence.h"
#include "scheduling/SnapshotInventory.h"
#include "scheduling/VolumeClockPersistence.h"

namespace quillmark {
namespace {

bool isSafety(const PruneRules::Snap& snap) {
  return SnapshotNameInfo::kind(snap.name) == SnapshotNameInfo::Kind::safety();
}

std::string reasonFor(const PruneRules::Snap& snap, std::int64_t safetyHours) {
  if (isSafety(snap)) {
    return fmt::format(
        "Expired safety snapshot: its {}h TTL (counted from creation or from this Mac first seeing the volume, "
        "whichever "
        "is later) has passed.",
        safetyHours);
  }
  return "Expired automatic snapshot: its cadence's natural lifespan has passed and count rotation no longer covers it "
         "(cadence or schedule off, or the snapshot predates this install). The countdown started at the latest of "
         "creation, discovery, and rotation stopping.";
}

// Absent when the volume can't be listed.
std::optional<std::vector<PruneRules::Snap>> snapsOn(APFSManager& apfs, const VolumeInfo& volume) {
  try {
    return prunableSnapshots(apfs, volume, {});
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

void LifespanSweep::run(const VolumeInfo& volume) {
  const VolumeUuid key = volume.key();
  const std::int64_t safetyHours = services_.settings.current().value_or(HelperSettings()).safetySnapshotRetentionHours;
  std::optional<SchedulePolicy> policy;
  if (services_.schedules.hasPolicy(key)) policy = services_.schedules.policy(key);
  const std::optional<Date> firstSeenAt = services_.clocks.firstSeen(key);
  auto snaps = snapsOn(services_.apfs, volume);
  if (!snaps) return;
  const auto protectedXIDs = protectedXIDsFor(services_, "lifespan prune", volume);
  if (!protectedXIDs) return;
  for (PruneRules::Snap& snap : *snaps) snap.isProtected = protectedXIDs->contains(snap.xid);
  discovery_.run(volume, *snaps);
  const auto expired = PruneRules::expired(*snaps, policy, safetyHours, firstSeenAt, services_.dispatch.clock().now());
  const std::size_t automatic = remove(volume, expired, snaps->size(), safetyHours);
  if (automatic > 0) report(volume, automatic);
}

std::size_t LifespanSweep::remove(const VolumeInfo& volume, const std::vector<PruneRules::Snap>& expired,
                                  std::size_t remaining, std::int64_t safetyHours) {
  const std::unique_ptr<DeletionBatch> deletions = services_.calls.beginDeletions();
  int deleted = 0;
  std::size_t automatic = 0;
  for (const PruneRules::Snap& snap : expired) {
    if (deleted == mostDeletions || remaining < leastRemaining) break;
    if (isSnapshotInUse(services_, volume, snap.xid)) continue;
    if (!deleter_.remove(volume, snap.name, snap.xid, reasonFor(snap, safetyHours))) break;
    ++deleted;
    --remaining;
    automatic += !isSafety(snap);
  }
  return automatic;
}

void LifespanSweep::report(const VolumeInfo& volume, std::size_t automatic) {
  events_.sendIfDue(volume, std::nullopt, ScheduleEvent::pruneCompleted, EventIntervals::pruneCompletedBySweep,
                    "Quillmark removed " + counted(automatic, "automatic snapshot") + " on " + volume.name +
                        " whose natural lifespan ended (their schedule no longer rotates them). Protect a snapshot to "
                        "keep it indefinitely.");
}

}  // namespace quillmark
