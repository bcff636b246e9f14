// Zones and slots by their published rules, as arithmetic on offsets: what the calendar under test is held against.
// Threads: pure.
// Units:   seconds since 1970, UTC.
#pragma once

#include <cstdint>
#include <string>

namespace quillmark::months {

inline constexpr int cadences = 5;
inline constexpr const char* cadenceWords[cadences] = {"freq", "hourly", "daily", "weekly", "monthly"};

// Names of the tz database that the tables hold.
inline constexpr const char* zoneNames[] = {"UTC",         "Europe/Berlin",       "America/New_York", "Asia/Kolkata",
                                            "Asia/Beirut", "Australia/Lord_Howe", "America/St_Johns"};

[[nodiscard]] std::int64_t offsetAt(const std::string& zone, std::int64_t utc);
// The start of the slot of the cadence that holds the moment. Of a local time that comes twice the first counts; for one
// that is left out stands the first moment after the gap.
[[nodiscard]] std::int64_t slotStart(int cadence, std::int64_t utc, const std::string& zone);
// "2026-03-01T09-00-00Z"
[[nodiscard]] std::string stampText(std::int64_t utc);

}  // namespace quillmark::months
