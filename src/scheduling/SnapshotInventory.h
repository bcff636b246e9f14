// What the passes know of a volume's snapshots.
// Threads: any; listings block.
// Errors:  listings throw Error.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/Date.h"
#include "base/Xid.h"
#include "scheduling/SchedulerServices.h"
#include "scheduling/rules/PruneRules.h"
#include "scheduling/rules/SnapshotNameInfo.h"

namespace quillmark {

// One of the system's own.
struct ParsedSnapshot {
  std::string name;
  Xid xid;
  Date createdAt;
  SnapshotNameInfo::Kind kind;
};

[[nodiscard]] std::vector<ParsedSnapshot> ownSnapshots(APFSManager& apfs, const VolumeInfo& volume);
// The same, with a line in the log instead of an error.
[[nodiscard]] std::optional<std::vector<ParsedSnapshot>> inventory(const SchedulerServices& services,
                                                                   const VolumeInfo& volume);
// All but the operating system's, as the rules see them.
[[nodiscard]] std::vector<PruneRules::Snap> prunableSnapshots(APFSManager& apfs, const VolumeInfo& volume,
                                                              const std::set<Xid>& protectedXIDs);
[[nodiscard]] std::vector<PruneRules::Snap> snapsOf(const std::vector<ParsedSnapshot>& inventory,
                                                    const std::set<Xid>& protectedXIDs);

// Absent, with a line in the log that says which pass doesn't take place, while protection can't be known.
[[nodiscard]] std::optional<std::set<Xid>> protectedXIDsFor(const SchedulerServices& services, std::string_view pass,
                                                            const VolumeInfo& volume);

// The volume, unless it can't be resolved or is a backup target, which nothing here ever touches.
[[nodiscard]] std::optional<VolumeInfo> schedulableVolume(APFSManager& apfs, const std::string& uuid);

// Mounted for a user, or for indexing.
[[nodiscard]] bool isSnapshotInUse(const SchedulerServices& services, const VolumeInfo& volume, Xid xid);

}  // namespace quillmark
