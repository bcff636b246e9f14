#include "service/HelperEnvironment.h"

#include <fmt/format.h>

#include "base/HelperLog.h"
#include "base/Text.h"
#include "history/SnapshotHistoryManager.h"
#include "platform/PlatformLog.h"
#include "scheduling/Scheduler.h"
#include "service/IndexProgressPush.h"
#include "service/StateDirectory.h"
#include "service/TemporaryDirectories.h"
#include "snapshots/LogNames.h"

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

// Of a store that says what became of its file.
HelperSubsystemHealth healthOf(const std::optional<std::string>& loadFailure) {
  if (!loadFailure) return {};
  return {HelperSubsystemState::unavailable, *loadFailure};
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
      persistence(platform.dispatch, platform.posix, platform.random, platform.log, platform.paths),
      settings(platform.dispatch, platform.posix, platform.random, log, platform.paths),
      clocks(platform.dispatch, platform.posix, platform.random, platform.log, platform.paths),
      protection(platform.dispatch, platform.posix, platform.random, platform.log, platform.attributes, platform.paths),
      names(platform.dispatch, platform.posix, platform.random, platform.log, platform.paths),
      tags(platform.dispatch, platform.posix, platform.random, platform.attributes, platform.paths),
      audit(platform.dispatch, platform.posix, platform.log, platform.paths), mutations(platform.dispatch),
      mountPins(platform.dispatch, platform.random), volumeQueues(platform.dispatch), connections(platform.dispatch),
      notifications(platform.dispatch, platform.random, platform.posix, platform.log, log, platform.paths,
                    [this](const std::string& json) {
                      connections.push("notificationPostedWithJson:", {JsonArgument{json, json.size()}});
                    }),
      identity(platform.dispatch, platform.processes, platform.propertyLists, platform.posix, platform.random,
               platform.log, platform.paths, SnapshotIdentity::FileIds::areXids),
      snapshots{platform.snapshots, platform.disks, platform.posix, platform.log, platform.paths, identity, {}},
      apfs(snapshots, LogNames::apfs), volumes(platform.dispatch, platform.disks, platform.snapshots,
                                               platform.processes, platform.propertyLists, platform.paths),
      homes(platform.dispatch, platform.users, platform.snapshots),
      exclusions(settings, homes, platform.clock, hostExclusions(platform.paths)),
      peerAuthorization(platform.dispatch, platform.threadIdentities, log),
      safeFiles(platform.fileWork, platform.random, platform.process),
      diffCache(platform.fileWork, safeFiles, platform.clock, platform.paths),
      health(platform.dispatch, platform.random, log, notifications, probes(std::move(hooks.healthNotes))),
      shutdown(platform.dispatch, log,
               {[this] { quiesce(); }, [this] { connections.flush(lastReplies); }, std::move(hooks.exitProcess)}),
      snapshotChanges(std::make_shared<SnapshotChangePush>(platform.dispatch, connections)),
      mountPaths(platform.dispatch), memory(platform.dispatch, platform.process),
      localComparisons(platform.dispatch, platform.directories, platform.posix, platform.threadIdentities, log,
                       &memory),
      scheduleNotices_(connections, notifications), startedOnce_(platform.dispatch, false) {}

HealthProbes HelperEnvironment::probes(std::vector<HealthNote> notes) {
  notes.insert(notes.begin(), [this] { return platform.bundle.anchorNote; });
  return {.audit = [this] { return healthOf(audit); },
          .history =
              [this] {
                if (history) return history->health();
                return HelperSubsystemHealth{HelperSubsystemState::unavailable, historyFailureDescription};
              },
          .schedules = [this] { return healthOf(persistence.loadFailureDescription()); },
          .settings = [this] { return healthOf(settings.loadFailureDescription()); },
          .protection = [this] { return healthOf(protection); },
          .scheduler =
              [this] {
                if (scheduler) return HelperSubsystemHealth();
                return HelperSubsystemHealth{HelperSubsystemState::unavailable, "scheduler has not started"};
              },
          .notes = std::move(notes)};
}

void HelperEnvironment::start() {
  if (startedOnce_.with([](bool& started) { return std::exchange(started, true); })) return;
  secureStateDirectory(platform.posix, platform.paths);
  // Before anything can start new ones: what indexing left mounted when it was cut off.
  apfs.cleanStaleIndexMounts({});
  openHistory();
  if (const auto failure = persistence.loadFailureDescription()) {
    log.error("Schedule storage is degraded; every automatic snapshot creation and deletion path is disabled: " +
              *failure);
  }
  snapshots.callbacks.identityMigration = [this](const VolumeInfo& volume,
                                                 const std::map<std::uint64_t, Xid>& fileIDToXID) {
    protection.migrateIdentities(volume, fileIDToXID);
  };
  snapshots.callbacks.inventoryChanged = [this](const std::string& volumeUUID) {
    snapshotInventoryChanged(volumeUUID);
  };
  installHistoryProviders();
  mergeNewDefaults();
  startHistory();
  startScheduler();
  // Owns what it touches: nobody waits for it.
  platform.dispatch.global(QualityOfService::utility)->async([facilities = platform] {
    sweepTemporaryDirectories(facilities);
  });
}

void HelperEnvironment::openHistory() {
  try {
    history = SnapshotHistoryManager::make({.dispatch = platform.dispatch,
                                            .random = platform.random,
                                            .posix = platform.posix,
                                            .calls = platform.snapshots,
                                            .disks = platform.disks,
                                            .directories = platform.directories,
                                            .power = platform.power,
                                            .platformLog = platform.log,
                                            .log = log,
                                            .paths = platform.paths,
                                            .apfs = apfs,
                                            .volumes = volumes,
                                            .mountPins = mountPins,
                                            .audit = audit,
                                            .caches = &diffCache,
                                            .memory = &memory});
  } catch (const std::exception& failure) {
    historyFailureDescription = asError(failure).description();
    log.error("Snapshot history is unavailable; snapshot management will continue without diff/index support: " +
              *historyFailureDescription);
  }
}

void HelperEnvironment::installHistoryProviders() {
  if (!history) return;
  const auto currentSettings = [this] { return settings.current().value_or(HelperSettings()); };
  history->install({
      .progressReporter =
          [this](const ActiveIndexProgress& progress) {
            connections.push(IndexProgressPush::selector, IndexProgressPush::arguments(progress));
          },
      .indexingMode = [currentSettings] { return currentSettings().indexingMode; },
      .volumeTracked =
          [this](const std::string& uuid) { return persistence.policy(VolumeUuid(uuid)).tracked.value_or(true); },
      .indexOnBattery = [currentSettings] { return currentSettings().indexOnBattery; },
      .exclusionRules = [this](const std::string& mountPoint) { return exclusions.rules(mountPoint); },
      .restoreCleanupPass = {},
      .pendingRestoreCleanups = {},
  });
}

void HelperEnvironment::startHistory() {
  if (!history) return;
  if (history->needsExistingSnapshotBootstrap()) history->bootstrapLater();
  history->startBackgroundWork();
}

void HelperEnvironment::mergeNewDefaults() {
  const std::vector<std::string> added = settings.mergeNewDefaults();
  if (added.empty()) return;
  log.info(fmt::format(
      "added {} newly-shipped default exclusion(s): {}; they apply from the next scan onward (existing indexes kept)",
      added.size(), join(added, ", ")));
}

void HelperEnvironment::startScheduler() {
  scheduler = Scheduler::make({
      .dispatch = platform.dispatch,
      .random = platform.random,
      .calls = platform.snapshots,
      .disks = platform.disks,
      .platformLog = platform.log,
      .log = log,
      .paths = platform.paths,
      .apfs = apfs,
      .volumeQueues = volumeQueues,
      .mutations = mutations,
      .protection = protection,
      .names = names,
      .tags = tags,
      .audit = audit,
      .schedules = persistence,
      .settings = settings,
      .clocks = clocks,
      .notifier = scheduleNotices_,
      .history = history.get(),
      .volumeList = [this] { return volumes.listVolumes(); },
      .automaticDeletionBlocked = [this] { return HealthMonitor::automaticDeletionBlocked(health.evaluate()); },
      .scheduleSnapshotsChanged = [this](const std::string& volumeUUID) { snapshotChanges->schedule(volumeUUID); },
      .dropCachedXidData = [this](const VolumeInfo& volume, Xid xid) { diffCache.purge(volume.key(), {xid}); },
      .invalidateVolumeList = {},
      .volumeAppeared = [this](const std::string& volumePath) { volumeAppeared(volumePath); },
      .foreignAppeared = [this](const std::string& path) { peerAuthorization.volumeRemounted(path); },
  });
  scheduler->start();
}

void HelperEnvironment::quiesce() {
  if (scheduler) scheduler->stop();
  if (history) history->stopBackgroundWork();
}

void HelperEnvironment::volumeAppeared(const std::string& volumePath) {
  if (!volumePath.empty()) peerAuthorization.volumeRemounted(volumePath);
  if (!history) return;
  for (const APFSVolume& volume : volumes.listVolumes()) {
    if (volume.mountPath == volumePath) history->reconcile(VolumeUuid(volume.id));
  }
}

void HelperEnvironment::snapshotInventoryChanged(const std::string& volumeUUID) {
  if (!mutations.holdsBack(volumeUUID)) snapshotChanges->schedule(volumeUUID);
  if (scheduler) scheduler->bumpGeneration(volumeUUID);
  if (history) history->reconcile(VolumeUuid(volumeUUID));
}

}  // namespace quillmark
