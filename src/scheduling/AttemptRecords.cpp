#include "scheduling/AttemptRecords.h"

namespace quillmark {
namespace {

// Ticks come to within this time of their minute. Without the allowance a retry ten minutes on would be missed by a
// hair, and come a minute late.
constexpr Seconds tickLeeway{2};
constexpr Date distantFuture = Date::fromReference(64'092'211'200);  // in the year 4001

std::string keyOf(const VolumeUuid& volume, SnapshotCadence cadence) {
  return volume.text() + "|" + std::string(word(cadence));
}

}  // namespace

bool AttemptRecords::mayTry(const VolumeUuid& volume, SnapshotCadence cadence, Date occurrence, Date now) {
  return records_.with([&](const auto& records) {
    const auto record = records.find(keyOf(volume, cadence));
    return record == records.end() || record->second.occurrence != occurrence ||
           now + tickLeeway >= record->second.notBefore;
  });
}

void AttemptRecords::retryFrom(const VolumeUuid& volume, SnapshotCadence cadence, Date occurrence, Date notBefore) {
  records_.with([&](auto& records) {
    records.insert_or_assign(keyOf(volume, cadence), AttemptRecord{occurrence, notBefore});
  });
}

void AttemptRecords::giveUp(const VolumeUuid& volume, SnapshotCadence cadence, Date occurrence) {
  retryFrom(volume, cadence, occurrence, distantFuture);
}

void AttemptRecords::forget(const VolumeUuid& volume, SnapshotCadence cadence) {
  records_.with([&](auto& records) { records.erase(keyOf(volume, cadence)); });
}

}  // namespace quillmark
