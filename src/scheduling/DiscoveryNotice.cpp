#include "scheduling/DiscoveryNotice.h"

#include <algorithm>

#include "platform/dispatch.h"
#include "scheduling/PeopleText.h"
#include "scheduling/VolumeClockPersistence.h"

namespace quillmark {
namespace {

// What this very installation made in its first minute isn't found.
constexpr Seconds margin{60};

}  // namespace

void DiscoveryNotice::run(const VolumeInfo& volume, const std::vector<PruneRules::Snap>& snaps) {
  if (!services_.clocks.discoveryPending(volume.key())) return;
  const Date reference = services_.clocks.firstSeen(volume.key()).value_or(services_.dispatch.clock().now());
  const auto found = std::count_if(snaps.begin(), snaps.end(), [&](const PruneRules::Snap& snap) {
    return snap.isOwned && snap.createdAt < reference - margin;
  });
  services_.clocks.markDiscoveryNoticeSent(volume.key());
  if (found == 0) return;
  events_.send(
      volume, std::nullopt, ScheduleEvent::snapshotsDiscovered,
      "Found " + counted(static_cast<std::size_t>(found), "existing Quillmark snapshot") + " on " + volume.name +
          " (from another Mac or a previous install). They now follow their standard lifespans, so protect any "
          "you want to keep. Nothing is deleted within 24 hours of discovery.");
}

}  // namespace quillmark
