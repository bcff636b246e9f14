// VolumeFreeSpaceState: what a volume's free space was when it was last measured. A plain value; JSON: wire/Json.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/Date.h"
#include "scheduling/rules/ScheduleLimits.h"

namespace quillmark {

struct VolumeFreeSpaceState {
  std::string volumeUUID;
  std::int64_t totalBytes = 0;
  std::int64_t freeBytes = 0;  // for a user
  std::int64_t lowSpaceBytesThreshold = 0;
  std::optional<Date> nextPruneCheckAt;  // absent when low-space pruning can't run on the volume
  std::optional<Date> firstSeenAt;
  bool operator==(const VolumeFreeSpaceState&) const = default;
};

// How far above its minimum a volume counts as recovered. Add it to nothing: minima have no upper bound.
[[nodiscard]] constexpr std::int64_t lowSpaceMargin(std::int64_t threshold) {
  return static_cast<std::int64_t>(static_cast<double>(threshold) * ScheduleLimits::lowSpaceRecoveryMargin);
}

}  // namespace quillmark
