#include "scheduling/rules/PruneRules.h"

#include <algorithm>
#include <tuple>

#include "scheduling/rules/ScheduleLimits.h"
#include "scheduling/rules/SnapshotNameInfo.h"

namespace quillmark::PruneRules {
namespace {

using KindCase = SnapshotNameInfo::Kind::Case;

bool isOlder(const Snap& a, const Snap& b) { return std::tie(a.createdAt, a.xid) < std::tie(b.createdAt, b.xid); }
bool isNewer(const Snap& a, const Snap& b) { return isOlder(b, a); }

// What counts as the cadence's: owned, unprotected and automatic; newest first.
std::map<SnapshotCadence, std::vector<Snap>> countedByCadence(const std::vector<Snap>& snaps) {
  std::map<SnapshotCadence, std::vector<Snap>> counted;
  for (const Snap& snap : snaps) {
    if (!snap.isOwned || snap.isProtected) continue;
    if (const auto cadence = SnapshotNameInfo::kind(snap.name).cadence) counted[*cadence].push_back(snap);
  }
  for (auto& [cadence, ofCadence] : counted) std::sort(ofCadence.begin(), ofCadence.end(), isNewer);
  return counted;
}

std::int64_t keptByCount(const SchedulePolicy& policy, SnapshotCadence cadence) {
  const auto entry = policy.retention.find(cadence);
  const std::int64_t keep = entry == policy.retention.end() ? defaultRetention(cadence) : entry->second;
  return std::max<std::int64_t>(keep, ScheduleLimits::leastRetention);
}

void keepFirst(std::vector<Snap>& snaps, std::int64_t count) {
  const auto wanted = static_cast<std::uint64_t>(std::max<std::int64_t>(count, 0));
  if (wanted < snaps.size()) snaps.resize(wanted);
}

Date later(Date date, std::optional<Date> other) { return other ? std::max(date, *other) : date; }

// The moment at which rotation will reach the snapshot if every slot brings a new one.
Date forecast(const Snap& snap, std::vector<Snap> counted, SnapshotCadence cadence, std::int64_t keep, Date now) {
  const auto found = std::find_if(counted.begin(), counted.end(), [&](const Snap& one) { return one.xid == snap.xid; });
  const std::int64_t index = found == counted.end() ? 0 : found - counted.begin();
  if (index >= keep) return now;
  const Date newest = counted.empty() ? snap.createdAt : counted.front().createdAt;
  return newest + interval(cadence) * static_cast<double>(keep - index);
}

Expiry foreignExpiry(const std::optional<SchedulePolicy>& policy) {
  const bool reachable = policy && !policy->protectForeignSnapshots && policy->pruneOnLowSpace;
  return reachable ? Expiry::whenSpaceLow() : Expiry::external();
}

Expiry manualExpiry(const std::optional<SchedulePolicy>& policy) {
  if (!policy) return Expiry::unknown();
  return policy->pruneOnLowSpace ? Expiry::whenSpaceLow() : Expiry::never();
}

Expiry atOrUnknown(std::optional<Date> date) { return date ? Expiry::at(*date) : Expiry::unknown(); }

}  // namespace

std::vector<Snap> rotationCandidates(const std::vector<Snap>& snaps, const SchedulePolicy& policy) {
  std::vector<Snap> candidates;
  for (const auto& [cadence, counted] : countedByCadence(snaps)) {
    const auto keep = static_cast<std::uint64_t>(keptByCount(policy, cadence));
    if (!policy.isRotating(cadence) || counted.size() <= keep) continue;
    candidates.insert(candidates.end(), counted.begin() + static_cast<std::ptrdiff_t>(keep), counted.end());
  }
  std::sort(candidates.begin(), candidates.end(), isOlder);
  return candidates;
}

std::optional<Date> naturalExpiry(const Snap& snap, const std::optional<SchedulePolicy>& policy,
                                  std::optional<Date> firstSeenAt, std::int64_t safetyHours) {
  if (snap.isProtected || !snap.isOwned) return std::nullopt;
  const SnapshotNameInfo::Kind kind = SnapshotNameInfo::kind(snap.name);
  Date end = later(snap.createdAt, firstSeenAt);
  if (kind.value == KindCase::safety) {
    end = end + Seconds(static_cast<double>(safetyHours) * 3600);
  } else if (kind.value == KindCase::automatic && !(policy && policy->isRotating(*kind.cadence))) {
    if (policy) end = later(end, policy->rotationStoppedAt(*kind.cadence));
    end = end + naturalLifespan(*kind.cadence);
  } else {
    return std::nullopt;
  }
  if (!firstSeenAt) return end;
  return later(end, *firstSeenAt + ScheduleLimits::discoveryGrace);
}

std::vector<Snap> expired(const std::vector<Snap>& snaps, const std::optional<SchedulePolicy>& policy,
                          std::int64_t safetyHours, std::optional<Date> firstSeenAt, Date now) {
  std::vector<std::pair<Date, Snap>> ended;
  for (const Snap& snap : snaps) {
    const auto end = naturalExpiry(snap, policy, firstSeenAt, safetyHours);
    if (end && *end <= now) ended.emplace_back(*end, snap);
  }
  std::sort(ended.begin(), ended.end(), [](const auto& a, const auto& b) {
    return std::tie(a.first, a.second.xid) < std::tie(b.first, b.second.xid);
  });
  std::vector<Snap> result;
  for (auto& [end, snap] : ended) result.push_back(std::move(snap));
  return result;
}

Expiry expiry(const Snap& snap, const std::vector<Snap>& all, const std::optional<SchedulePolicy>& policy,
              std::optional<Date> firstSeenAt, std::int64_t safetyHours, Date now) {
  if (!snap.isOwned) return foreignExpiry(policy);
  if (snap.isProtected) return Expiry::never();
  const SnapshotNameInfo::Kind kind = SnapshotNameInfo::kind(snap.name);
  switch (kind.value) {
    case KindCase::manual: return manualExpiry(policy);
    case KindCase::safety: return atOrUnknown(naturalExpiry(snap, policy, firstSeenAt, safetyHours));
    case KindCase::unknown: return Expiry::external();
    case KindCase::automatic: break;
  }
  if (!policy) return Expiry::unknown();
  if (!policy->isRotating(*kind.cadence)) {
    return atOrUnknown(naturalExpiry(snap, policy, firstSeenAt, safetyHours));
  }
  const std::int64_t keep = keptByCount(*policy, *kind.cadence);
  return Expiry::at(forecast(snap, countedByCadence(all)[*kind.cadence], *kind.cadence, keep, now));
}

std::set<std::string> newestOfEachCadence(const std::vector<Snap>& snaps, std::int64_t count) {
  std::set<std::string> names;
  for (auto& [cadence, counted] : countedByCadence(snaps)) {
    keepFirst(counted, count);
    for (const Snap& snap : counted) names.insert(snap.name);
  }
  return names;
}

std::vector<Snap> holdCandidates(const std::vector<Snap>& snaps, const std::string& anchorName, std::int64_t count,
                                 Date fallbackDate) {
  const auto anchor = anchorName.empty() ? snaps.end()
                                         : std::find_if(snaps.begin(), snaps.end(),
                                                        [&](const Snap& snap) { return snap.name == anchorName; });
  const Date reference = anchor == snaps.end() ? fallbackDate : anchor->createdAt;
  std::vector<Snap> others;
  for (auto snap = snaps.begin(); snap != snaps.end(); ++snap) {
    if (snap != anchor && snap->isOwned && snap->createdAt <= reference) others.push_back(*snap);
  }
  std::sort(others.begin(), others.end(), isNewer);
  keepFirst(others, count);
  if (anchor != snaps.end()) others.insert(others.begin(), *anchor);
  return others;
}

}  // namespace quillmark::PruneRules
