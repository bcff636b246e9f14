#include "scheduling/SnapshotDeleter.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/HelperLog.h"
#include "platform/PlatformLog.h"
#include "platform/dispatch.h"
#include "scheduling/SchedulePersistence.h"
#include "scheduling/rules/SnapshotNameInfo.h"
#include "snapshots/APFSManager.h"
#include "snapshots/LogNames.h"
#include "snapshots/SnapshotHistory.h"
#include "snapshots/SnapshotLabels.h"
#include "snapshots/SnapshotProtection.h"

namespace quillmark {

using enum QuillmarkErrorCode;

bool SnapshotDeleter::remove(const VolumeInfo& volume, const std::string& name, Xid xid,
                             const std::string& reason) const {
  if (!gate_.isOpen()) {
    services_.log.warn("Automatic deletion blocked by the global safety/health gate for volume " + volume.uuid);
    return false;
  }
  const MonotonicTime startedAt = services_.dispatch.clock().monotonic();
  const auto log = [&](PlatformLogType type, std::string_view what, const std::string& why) {
    services_.platformLog.log(type, LogNames::subsystem, schedulerLogCategory,
                              fmt::format("{} {}: {}", what, name, why));
  };
  const Target target{volume, name, xid};
  // Before any lock: what reads it for the index stands aside.
  const auto claim = services_.history ? services_.history->claim(volume.key(), name) : nullptr;
  try {
    removeUnlessProtected(target);
  } catch (const std::exception& exception) {
    const std::string failure = asError(exception).description();
    log(PlatformLogType::error, "prune failed for", failure);
    audit_.write(volume, {HelperEvent::Kind::deleteSnapshot, name, "Prune failed. " + reason, failure, startedAt});
    return false;
  }
  forget(target);
  log(PlatformLogType::normal, "pruned", reason);
  audit_.write(volume, {HelperEvent::Kind::deleteSnapshot, name, reason, std::nullopt, startedAt});
  return true;
}

// Under the guard from the tests to the act, so that nobody can protect the snapshot in between.
void SnapshotDeleter::removeUnlessProtected(const Target& target) const {
  const SchedulePolicy policy = services_.schedules.policy(target.volume.key());
  const bool foreign = policy.protectForeignSnapshots && !SnapshotNameInfo::isOwned(target.name);
  const std::unique_ptr<ProtectionGuard> guard = services_.protection.lock();
  requireSameSnapshot(target);
  if (foreign || guard->protectedXIDs(target.volume).contains(target.xid)) {
    throw QuillmarkError::make(protectedSnapshot,
                               "Refusing to delete a protected snapshot. Use Force or unprotect it first.");
  }
  services_.apfs.deleteSnapshot(target.volume, {target.name, target.xid});
  guard->forgetDeleted(target.volume, target.xid);
}

void SnapshotDeleter::requireSameSnapshot(const Target& target) const {
  const std::vector<SnapshotRecord> snapshots = services_.apfs.listSnapshots(target.volume);
  const auto found = std::find_if(snapshots.begin(), snapshots.end(),
                                  [&](const SnapshotRecord& snapshot) { return snapshot.name == target.name; });
  if (found == snapshots.end()) throw QuillmarkError::make(snapshotNotFound, "Snapshot no longer exists");
  if (found->xid != target.xid) {
    throw QuillmarkError::make(snapshotNotFound, "Snapshot identity changed before deletion");
  }
}

void SnapshotDeleter::forget(const Target& target) const {
  services_.names.forgetDeleted(target.volume.key(), target.name);
  services_.tags.forgetDeleted(target.volume, target.xid);
  if (services_.dropCachedXidData) services_.dropCachedXidData(target.volume, target.xid);
  if (services_.history) services_.history->snapshotsDeleted(target.volume, {target.xid});
}

}  // namespace quillmark
