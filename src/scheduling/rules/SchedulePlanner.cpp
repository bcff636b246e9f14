#include "scheduling/rules/SchedulePlanner.h"

#include "scheduling/rules/CadenceCalendar.h"

namespace quillmark {

std::optional<Date> SchedulePlanner::dueOccurrence(SnapshotCadence cadence, std::optional<Date> lastSnapshotAt,
                                                   Date now, const std::string& timeZone) {
  const Date occurrence = CadenceCalendar::occurrence(cadence, now, timeZone);
  if (now < occurrence || (lastSnapshotAt && *lastSnapshotAt >= occurrence)) return std::nullopt;
  return occurrence;
}

Date SnapshotReconciliation::scheduledDate(Date occurrence, Date now, Seconds tolerance) {
  return now - occurrence <= tolerance ? occurrence : now;
}

}  // namespace quillmark
