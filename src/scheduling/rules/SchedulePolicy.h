// SchedulePolicy: what is to be snapshotted on one volume, and how long it lives. A plain value.
// JSON: wire/Json.h; maps keyed by a cadence are flat arrays of alternating word and value.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>

#include "base/Date.h"
#include "scheduling/rules/ScheduleLimits.h"
#include "scheduling/rules/SnapshotCadence.h"

namespace quillmark {

struct SchedulePolicy {
  bool enabled = true;
  std::map<SnapshotCadence, std::int64_t> retention;  // snapshots kept by count
  std::set<SnapshotCadence> enabledCadences;
  bool pruneOnLowSpace = true;
  std::int64_t lowSpaceBytes = ScheduleLimits::defaultLowSpaceBytes;
  std::optional<Date> scheduleDisabledAt;  // when enabled last went false
  std::optional<std::map<SnapshotCadence, Date>> cadenceDisabledAt;
  bool protectForeignSnapshots = true;  // foreign snapshots are out of reach of low-space pruning
  std::optional<bool> tracked;          // false: no schedule, history or free-space watch; absent counts as true
  bool operator==(const SchedulePolicy&) const = default;

  [[nodiscard]] static SchedulePolicy makeDefault();
  // Bad values mended, not refused: every cadence has a retention in its range, lowSpaceBytes at least its minimum.
  [[nodiscard]] SchedulePolicy normalized() const;
  // A client's own values of the two stamps are never believed: they follow from the policy stored before, if any.
  [[nodiscard]] SchedulePolicy stamped(const std::optional<SchedulePolicy>& previous, Date now) const;
  [[nodiscard]] bool isRotating(SnapshotCadence cadence) const;
  // When count rotation of the cadence ended; absent while it rotates, and when nobody noted the time.
  [[nodiscard]] std::optional<Date> rotationStoppedAt(SnapshotCadence cadence) const;
};

}  // namespace quillmark
