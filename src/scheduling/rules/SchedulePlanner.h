// SchedulePlanner: whether a cadence is due. SnapshotReconciliation: which time its snapshot bears.
// Neither remembers anything: the newest snapshot of the cadence, as found on the volume, is all the memory there is, so
// that a machine which slept through several slots gets one snapshot, for the slot in which it wakes.
// Threads: pure. Errors: none.
#pragma once

#include <optional>
#include <string>

#include "base/Date.h"
#include "scheduling/rules/SnapshotCadence.h"

namespace quillmark::SchedulePlanner {

// The start of the slot for which a snapshot has to be taken now; absent when its slot has one. timeZone is a name of the
// tz database.
[[nodiscard]] std::optional<Date> dueOccurrence(SnapshotCadence cadence, std::optional<Date> lastSnapshotAt, Date now,
                                                const std::string& timeZone);

}  // namespace quillmark::SchedulePlanner

namespace quillmark::SnapshotReconciliation {

// The slot's own time while the slot is no older than the tolerance, then the real one.
[[nodiscard]] Date scheduledDate(Date occurrence, Date now, Seconds tolerance);

}  // namespace quillmark::SnapshotReconciliation
