#include "scheduling/rules/SchedulePolicy.h"

#include <algorithm>

#include "wire/RecordCoding.h"

namespace quillmark {

SchedulePolicy SchedulePolicy::makeDefault() {
  SchedulePolicy policy;
  for (const SnapshotCadence cadence : allCadences) policy.retention[cadence] = defaultRetention(cadence);
  policy.enabledCadences = {SnapshotCadence::freq, SnapshotCadence::hourly, SnapshotCadence::daily};
  return policy;
}

SchedulePolicy SchedulePolicy::normalized() const {
  SchedulePolicy policy = *this;
  for (const SnapshotCadence cadence : allCadences) {
    const auto [entry, missing] = policy.retention.try_emplace(cadence, defaultRetention(cadence));
    entry->second = std::clamp<std::int64_t>(entry->second, ScheduleLimits::leastRetention, mostRetained(cadence));
  }
  policy.lowSpaceBytes = std::max(policy.lowSpaceBytes, ScheduleLimits::leastLowSpaceBytes);
  return policy;
}

SchedulePolicy SchedulePolicy::stamped(const std::optional<SchedulePolicy>& previous, Date now) const {
  SchedulePolicy policy = *this;
  policy.scheduleDisabledAt.reset();
  if (!enabled) {
    const bool wasDisabled = previous && !previous->enabled;
    policy.scheduleDisabledAt = wasDisabled ? previous->scheduleDisabledAt.value_or(now) : now;
  }
  std::map<SnapshotCadence, Date> stopped;
  for (const SnapshotCadence cadence : allCadences) {
    if (enabledCadences.contains(cadence)) continue;
    stopped[cadence] = now;
    if (!previous || previous->enabledCadences.contains(cadence) || !previous->cadenceDisabledAt) continue;
    const auto before = previous->cadenceDisabledAt->find(cadence);
    if (before != previous->cadenceDisabledAt->end()) stopped[cadence] = before->second;
  }
  policy.cadenceDisabledAt.reset();
  if (!stopped.empty()) policy.cadenceDisabledAt = std::move(stopped);
  return policy;
}

bool SchedulePolicy::isRotating(SnapshotCadence cadence) const { return enabled && enabledCadences.contains(cadence); }

std::optional<Date> SchedulePolicy::rotationStoppedAt(SnapshotCadence cadence) const {
  if (!enabled) return scheduleDisabledAt;
  if (enabledCadences.contains(cadence) || !cadenceDisabledAt) return std::nullopt;
  const auto entry = cadenceDisabledAt->find(cadence);
  return entry == cadenceDisabledAt->end() ? std::nullopt : std::optional(entry->second);
}

template <>
struct CaseNames<SnapshotCadence> {
  static constexpr std::array names{
      std::pair{SnapshotCadence::freq, "freq"}, std::pair{SnapshotCadence::hourly, "hourly"},
      std::pair{SnapshotCadence::daily, "daily"}, std::pair{SnapshotCadence::weekly, "weekly"},
      std::pair{SnapshotCadence::monthly, "monthly"}};
};

template <>
struct Description<SchedulePolicy> {
  static void fields(auto& field, auto& policy) {
    field("enabled", policy.enabled);
    field("retention", policy.retention);
    field("enabledCadences", policy.enabledCadences);
    field("pruneOnLowSpace", policy.pruneOnLowSpace);
    field("lowSpaceBytes", policy.lowSpaceBytes);
    field("scheduleDisabledAt", policy.scheduleDisabledAt);
    field("cadenceDisabledAt", policy.cadenceDisabledAt);
    field("protectForeignSnapshots", policy.protectForeignSnapshots);
    field("tracked", policy.tracked);
  }
};

template std::string encodeJson(const std::map<std::string, SchedulePolicy>&);
template std::map<std::string, SchedulePolicy> decodeJson(std::string_view);

}  // namespace quillmark

QUILLMARK_RECORD(quillmark::SchedulePolicy)
