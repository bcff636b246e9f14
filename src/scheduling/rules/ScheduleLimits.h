// Bounds of schedules, the same for every volume.
#pragma once

#include <cstdint>

#include "base/Date.h"

namespace quillmark::ScheduleLimits {

// Of the system's own snapshots on a volume; past it people are warned.
inline constexpr int softSnapshotCeiling = 64;
inline constexpr int leastRetention = 1;
inline constexpr std::int64_t leastLowSpaceBytes = 5'000'000'000;
inline constexpr std::int64_t defaultLowSpaceBytes = 30'000'000'000;
// Low-space pruning goes on until free space is this part above the minimum.
inline constexpr double lowSpaceRecoveryMargin = 0.1;
// No lifespan expires within this time of a volume's first sighting.
inline constexpr Seconds discoveryGrace{86400};

}  // namespace quillmark::ScheduleLimits
