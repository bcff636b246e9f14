#include "scheduling/SnapshotInventory.h"

#include <fmt/format.h>

#include "base/Text.h"
#include "platform/PlatformLog.h"
#include "snapshots/APFSManager.h"
#include "snapshots/LogNames.h"
#include "snapshots/MountNames.h"
#include "snapshots/SnapshotProtection.h"

namespace quillmark {

std::vector<ParsedSnapshot> ownSnapshots(APFSManager& apfs, const VolumeInfo& volume) {
  std::vector<ParsedSnapshot> own;
  for (SnapshotRecord& record : apfs.listSnapshots(volume)) {
    const SnapshotNameInfo::Kind kind = SnapshotNameInfo::kind(record.name);
    if (kind != SnapshotNameInfo::Kind::unknown()) {
      own.push_back({std::move(record.name), record.xid, record.createdAt, kind});
    }
  }
  return own;
}

std::optional<std::vector<ParsedSnapshot>> inventory(const SchedulerServices& services, const VolumeInfo& volume) {
  try {
    return ownSnapshots(services.apfs, volume);
  } catch (const std::exception& failure) {
    services.platformLog.log(
        PlatformLogType::error, LogNames::subsystem, schedulerLogCategory,
        fmt::format("snapshot inventory failed for {}: {}", volume.uuid, asError(failure).description()));
    return std::nullopt;
  }
}

std::vector<PruneRules::Snap> prunableSnapshots(APFSManager& apfs, const VolumeInfo& volume,
                                                const std::set<Xid>& protectedXIDs) {
  std::vector<PruneRules::Snap> snaps;
  for (SnapshotRecord& record : apfs.listSnapshots(volume)) {
    if (SnapshotNameInfo::isSystemManaged(record.name)) continue;
    const bool isOwned = SnapshotNameInfo::isOwned(record.name);
    snaps.push_back(
        {std::move(record.name), record.xid, record.createdAt, protectedXIDs.contains(record.xid), isOwned});
  }
  return snaps;
}

std::vector<PruneRules::Snap> snapsOf(const std::vector<ParsedSnapshot>& inventory,
                                      const std::set<Xid>& protectedXIDs) {
  std::vector<PruneRules::Snap> snaps;
  for (const ParsedSnapshot& snapshot : inventory) {
    snaps.push_back({snapshot.name, snapshot.xid, snapshot.createdAt, protectedXIDs.contains(snapshot.xid), true});
  }
  return snaps;
}

std::optional<std::set<Xid>> protectedXIDsFor(const SchedulerServices& services, std::string_view pass,
                                              const VolumeInfo& volume) {
  try {
    return services.protection.protectedXIDs(volume);
  } catch (const std::exception&) {
    services.platformLog.log(
        PlatformLogType::fault, LogNames::subsystem, schedulerLogCategory,
        fmt::format("{} disabled for {} because protection state is unavailable", pass, volume.uuid));
    return std::nullopt;
  }
}

std::optional<VolumeInfo> schedulableVolume(APFSManager& apfs, const std::string& uuid) {
  try {
    VolumeInfo volume = apfs.resolveVolume(uuid);
    if (volume.role && equalsIgnoringAsciiCase(*volume.role, "backup")) return std::nullopt;
    return volume;
  } catch (const std::exception&) {
    return std::nullopt;  // not mounted now
  }
}

bool isSnapshotInUse(const SchedulerServices& services, const VolumeInfo& volume, Xid xid) {
  const std::string indexMount = fmt::format("{}/.index-{}-{}", services.paths.privateMountRoot,
                                             snapshotMountName(volume.name, volume.uuid), xid.value);
  return isMountPoint(services.calls, userMountPath(services.paths, volume, xid)) ||
         isMountPoint(services.calls, indexMount);
}

}  // namespace quillmark
