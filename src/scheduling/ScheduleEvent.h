// ScheduleEvent: what the scheduler tells clients of, and how often at most.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/Date.h"
#include "journal/HelperNotification.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

enum class ScheduleEvent {
  skippedLowSpace,
  createFailed,
  softCeilingExceeded,
  pruneCompleted,
  noPruneCandidates,
  snapshotsDiscovered,
};

[[nodiscard]] std::string_view word(ScheduleEvent event);

// The least time between two events of a kind on one volume; the low-space pass's pruneCompleted and
// snapshotsDiscovered go out each time.
namespace EventIntervals {

inline constexpr Seconds skippedLowSpace{21600};
inline constexpr Seconds createFailed{3600};
inline constexpr Seconds pruneCompletedBySweep{21600};
inline constexpr Seconds noPruneCandidates{86400};
inline constexpr Seconds softCeilingExceeded{86400};

}  // namespace EventIntervals

[[nodiscard]] std::string volumeDeepLink(const std::string& volumeUUID);
// The notice for people that goes with the event, without id and timestamp; absent where clients alone are told.
[[nodiscard]] std::optional<HelperNotification> noticeOf(ScheduleEvent event, const VolumeInfo& volume,
                                                         const std::string& message);

}  // namespace quillmark
