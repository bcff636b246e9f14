// What will become of a volume's snapshots by itself.
// Threads: pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Date.h"
#include "scheduling/rules/HelperSettings.h"
#include "scheduling/rules/PruneRules.h"
#include "scheduling/rules/SchedulePolicy.h"
#include "wire/Records.h"

namespace quillmark::cli {

// Why the next pass of the scheduler deletes a snapshot.
enum class Removal { none, byCount, byLifespan };

struct PlannedSnapshot {
  SnapshotRecord snapshot;
  std::string kind;  // "hourly", "manual", "safety", "foreign"
  PruneRules::Expiry expiry;
  Removal removal = Removal::none;
};

struct PlanFacts {
  std::optional<SchedulePolicy> policy;
  HelperSettings settings;
  std::optional<Date> firstSeenAt;
  Date now;
};

// The oldest first. As though nothing were mounted, and automatic deletion were on.
[[nodiscard]] std::vector<PlannedSnapshot> planOf(const std::vector<SnapshotRecord>& snapshots, const PlanFacts& facts);

// "at", "never", "whenSpaceLow", "external", "unknown"
[[nodiscard]] std::string_view word(PruneRules::Expiry::Case ending);
// "none", "count", "lifespan"
[[nodiscard]] std::string_view word(Removal removal);

}  // namespace quillmark::cli
