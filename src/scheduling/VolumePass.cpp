#include "scheduling/VolumePass.h"

#include <algorithm>

#include "platform/dispatch.h"
#include "scheduling/rules/SchedulePlanner.h"

namespace quillmark {

void VolumePass::run(const VolumeInfo& volume, const SchedulePolicy& policy, Date now) {
  const auto own = inventory(services_, volume);
  if (!own) return;
  if (policy.enabled) takeWhatIsDue(volume, policy, *own, now);
  const VolumeUuid key = volume.key();
  const std::uint64_t generation = generations_.current(key);
  if (generations_.isPruned(key)) return;
  const RotationPass::Outcome rotated = rotation_.run(volume, policy);
  if (rotated.succeeded) generations_.notePruned(key, generation, rotated.deleted);
}

void VolumePass::takeWhatIsDue(const VolumeInfo& volume, const SchedulePolicy& policy,
                               const std::vector<ParsedSnapshot>& inventory, Date now) {
  for (const SnapshotCadence cadence : allCadences) {
    if (!policy.enabledCadences.contains(cadence)) continue;
    const auto occurrence = dueOccurrence(volume.key(), cadence, inventory, now);
    if (occurrence) taker_.take(volume, policy, cadence, *occurrence);
  }
}

std::optional<Date> VolumePass::dueOccurrence(const VolumeUuid& volume, SnapshotCadence cadence,
                                              const std::vector<ParsedSnapshot>& inventory, Date now) {
  std::optional<Date> last;
  for (const ParsedSnapshot& snapshot : inventory) {
    if (snapshot.kind.cadence == cadence) last = std::max(last.value_or(snapshot.createdAt), snapshot.createdAt);
  }
  const auto occurrence = SchedulePlanner::dueOccurrence(cadence, last, now, services_.dispatch.clock().timeZone());
  if (!occurrence || !attempts_.mayTry(volume, cadence, *occurrence, now)) return std::nullopt;
  return occurrence;
}

}  // namespace quillmark
