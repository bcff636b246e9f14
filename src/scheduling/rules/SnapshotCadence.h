// SnapshotCadence: how often a scheduled snapshot is taken, and how long its kind lives by nature.
#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "base/Date.h"

namespace quillmark {

// In the order of every loop over cadences.
enum class SnapshotCadence { freq, hourly, daily, weekly, monthly };

inline constexpr std::array allCadences{SnapshotCadence::freq, SnapshotCadence::hourly, SnapshotCadence::daily,
                                        SnapshotCadence::weekly, SnapshotCadence::monthly};

[[nodiscard]] std::string_view word(SnapshotCadence cadence);
[[nodiscard]] std::optional<SnapshotCadence> cadence(std::string_view word);

// A slot's nominal length, for forecasts only: real slots are CadenceCalendar's.
[[nodiscard]] Seconds interval(SnapshotCadence cadence);
[[nodiscard]] Seconds naturalLifespan(SnapshotCadence cadence);
// May lie outside the range of 1 to mostRetained: normalizing a policy mends that.
[[nodiscard]] int defaultRetention(SnapshotCadence cadence);
[[nodiscard]] int mostRetained(SnapshotCadence cadence);

}  // namespace quillmark
