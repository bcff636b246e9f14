#include "service/HelperEnvironment.h"

#include <fmt/format.h>

#include "platform/PlatformLog.h"
#include "service/StateDirectory.h"
#include "service/TemporaryDirectories.h"
#include "snapshots/LogNames.h"
#include "snapshots/SnapshotHistory.h"

namespace quillmark {
namespace {

// How long clients have at the end to take their last replies.
constexpr std::chrono::seconds lastReplies{1};

HelperSubsystemHealth healthOf(ActivityLog& audit) {
  const AuditLogHealth health = audit.health();
  if (health.consecutiveFailedWrites == 0) return {};
  return {HelperSubsystemState::degraded,
          fmt::format("{} write(s) failed: {}", health.failedWriteCount, health.lastError.value_or("unknown error"))};
}

HelperSubsystemHealth healthOf(SnapshotProtection& protection) {
  try {
    protection.ensureLoaded();
    return {};
  } catch (const Error& failure) {
    return {HelperSubsystemState::unavailable, failure.description()};
  }
}

}  // namespace

HelperEnvironment::HelperEnvironment(const Platform& platformFacilities, HelperLog& helperLog, Hooks hooks)
    : platform(platformFacilities), log(helperLog),
      protection(platform.dispatch, platform.posix, platform.random, platform.log, platform.attributes, platform.paths),
      names(platform.dispatch, platform.posix, platform.random, platform.log, platform.paths),
      tags(platform.dispatch, platform.posix, platform.random, platform.attributes, platform.paths),
      audit(platform.dispatch, platform.posix, platform.log, platform.paths), mutations(platform.dispatch),
      mountPins(platform.dispatch, platform.random), volumeQueues(platform.dispatch), connections(platform.dispatch),
      identity(platform.dispatch, platform.processes, platform.propertyLists, platform.posix, platform.random,
               platform.log, platform.paths, SnapshotIdentity::FileIds::areXids),
      snapshots{platform.snapshots, platform.disks, platform.posix, platform.log, platform.paths, identity, {}},
      apfs(snapshots, LogNames::apfs), volumes(platform.dispatch, platform.disks, platform.snapshots,
                                               platform.processes, platform.propertyLists, platform.paths),
      health(platform.dispatch, platform.random, log, probes(std::move(hooks.healthNotes))),
      shutdown(platform.dispatch, log,
               {nullptr, [this] { connections.flush(lastReplies); }, std::move(hooks.exitProcess)}),
      snapshotChanges(std::make_shared<SnapshotChangePush>(platform.dispatch, connections)),
      mountPaths(platform.dispatch), startedOnce_(platform.dispatch, false) {}

HealthProbes HelperEnvironment::probes(std::vector<HealthNote> notes) {
  notes.insert(notes.begin(), [this] { return platform.bundle.anchorNote; });
  return {.audit = [this] { return healthOf(audit); },
          .protection = [this] { return healthOf(protection); },
          .notes = std::move(notes)};
}

void HelperEnvironment::start() {
  if (startedOnce_.with([](bool& started) { return std::exchange(started, true); })) return;
  secureStateDirectory(platform.posix, platform.paths);
  // Before anything can start new ones: what indexing left mounted when it was cut off.
  apfs.cleanStaleIndexMounts({});
  snapshots.callbacks.identityMigration = [this](const VolumeInfo& volume,
                                                 const std::map<std::uint64_t, Xid>& fileIDToXID) {
    protection.migrateIdentities(volume, fileIDToXID);
  };
  snapshots.callbacks.inventoryChanged = [this](const std::string& volumeUUID) {
    snapshotInventoryChanged(volumeUUID);
  };
  // Owns what it touches: nobody waits for it.
  platform.dispatch.global(QualityOfService::utility)->async([facilities = platform] {
    sweepTemporaryDirectories(facilities);
  });
}

void HelperEnvironment::snapshotInventoryChanged(const std::string& volumeUUID) {
  if (!mutations.isOpen(volumeUUID)) snapshotChanges->schedule(volumeUUID);
  if (history) history->reconcile(VolumeUuid(volumeUUID));
}

}  // namespace quillmark
