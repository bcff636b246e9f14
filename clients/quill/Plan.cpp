#include "quill/Plan.h"

#include <algorithm>

#include "scheduling/rules/SnapshotNameInfo.h"

namespace quillmark::cli {
namespace {

using PruneRules::Expiry;
using PruneRules::Snap;

Snap snapOf(const SnapshotRecord& record) {
  return {.name = record.name,
          .xid = record.xid,
          .createdAt = record.createdAt,
          .isProtected = record.isProtected && !record.isAutoProtected,
          .isOwned = SnapshotNameInfo::isOwned(record.name)};
}

std::string kindOf(const std::string& name) {
  if (!SnapshotNameInfo::isOwned(name)) return "foreign";
  const auto kind = SnapshotNameInfo::kind(name);
  switch (kind.value) {
    case SnapshotNameInfo::Kind::Case::automatic: return std::string(word(*kind.cadence));
    case SnapshotNameInfo::Kind::Case::manual: return std::string(SnapshotNameInfo::manualWord);
    case SnapshotNameInfo::Kind::Case::safety: return std::string(SnapshotNameInfo::safetyWord);
    case SnapshotNameInfo::Kind::Case::unknown: break;
  }
  return "unknown";
}

bool holds(const std::vector<Snap>& snaps, Xid xid) {
  return std::any_of(snaps.begin(), snaps.end(), [&](const Snap& snap) { return snap.xid == xid; });
}

Expiry expiryOf(const Snap& snap, const std::vector<Snap>& all, const PlanFacts& facts) {
  const bool isUntracked = facts.policy && facts.policy->tracked == false;
  if (snap.isProtected || isUntracked) return snap.isOwned ? Expiry::never() : Expiry::external();
  return PruneRules::expiry(snap, all, facts.policy, facts.firstSeenAt, facts.settings.safetySnapshotRetentionHours,
                            facts.now);
}

}  // namespace

std::vector<PlannedSnapshot> planOf(const std::vector<SnapshotRecord>& snapshots, const PlanFacts& facts) {
  std::vector<Snap> all;
  for (const SnapshotRecord& record : snapshots) all.push_back(snapOf(record));
  const bool isTracked = !facts.policy || facts.policy->tracked != false;
  std::vector<Snap> beyondCount, expired;
  if (facts.policy && isTracked) beyondCount = PruneRules::rotationCandidates(all, *facts.policy);
  if (isTracked) {
    expired = PruneRules::expired(all, facts.policy, facts.settings.safetySnapshotRetentionHours, facts.firstSeenAt,
                                  facts.now);
  }
  std::vector<PlannedSnapshot> plan;
  for (std::size_t i = 0; i < all.size(); ++i) {
    PlannedSnapshot planned{snapshots[i], kindOf(all[i].name), expiryOf(all[i], all, facts)};
    if (holds(expired, all[i].xid)) planned.removal = Removal::byLifespan;
    if (holds(beyondCount, all[i].xid)) planned.removal = Removal::byCount;
    plan.push_back(std::move(planned));
  }
  std::stable_sort(plan.begin(), plan.end(),
                   [](const auto& a, const auto& b) { return a.snapshot.xid < b.snapshot.xid; });
  return plan;
}

std::string_view word(Expiry::Case ending) {
  switch (ending) {
    case Expiry::Case::at: return "at";
    case Expiry::Case::never: return "never";
    case Expiry::Case::whenSpaceLow: return "whenSpaceLow";
    case Expiry::Case::external: return "external";
    case Expiry::Case::unknown: break;
  }
  return "unknown";
}

std::string_view word(Removal removal) {
  switch (removal) {
    case Removal::byCount: return "count";
    case Removal::byLifespan: return "lifespan";
    case Removal::none: break;
  }
  return "none";
}

}  // namespace quillmark::cli
