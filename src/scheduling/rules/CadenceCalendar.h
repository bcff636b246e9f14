// CadenceCalendar: the slots of the cadences, in local time of the Gregorian calendar, weeks from Monday.
// Slots move with daylight saving. When no date can be built the one given stands in.
// Threads: pure; building a calendar costs microseconds.
#pragma once

#include <string>

#include "base/Date.h"
#include "scheduling/rules/SnapshotCadence.h"

namespace quillmark::CadenceCalendar {

// The start of the slot that holds the date. timeZone is a name of the tz database.
[[nodiscard]] Date occurrence(SnapshotCadence cadence, Date date, const std::string& timeZone);
// The start of the following slot.
[[nodiscard]] Date next(SnapshotCadence cadence, Date date, const std::string& timeZone);

}  // namespace quillmark::CadenceCalendar
