#include "service/HelperEnvironment.h"

#include <fmt/format.h>

#include "base/HelperLog.h"
#include "base/Text.h"
#include "platform/PlatformLog.h"
#include "scheduling/Scheduler.h"
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
      health(platform.dispatch, platform.random, log, notifications, probes(std::move(hooks.healthNotes))),
      shutdown(platform.dispatch, log,
               {[this] { quiesce(); }, [this] { connections.flush(lastReplies); }, std::move(hooks.exitProcess)}),
      snapshotChanges(std::make_shared<SnapshotChangePush>(platform.dispatch, connections)),
      mountPaths(platform.dispatch), scheduleNotices_(connections, notifications),
      startedOnce_(platform.dispatch, false) {}

HealthProbes HelperEnvironment::probes(std::vector<HealthNote> notes) {
  notes.insert(notes.begin(), [this] { return platform.bundle.anchorNote; });
  return {.audit = [this] { return healthOf(audit); },
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
  mergeNewDefaults();
  startScheduler();
  // Owns what it touches: nobody waits for it.
  platform.dispatch.global(QualityOfService::utility)->async([facilities = platform] {
    sweepTemporaryDirectories(facilities);
  });
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
      .mountPins = mountPins,
      .protection = protection,
      .names = names,
      .tags = tags,
      .audit = audit,
      .schedules = persistence,
      .settings = settings,
      .clocks = clocks,
      .notifier = scheduleNotices_,
      .history = history,
      .volumeList = [this] { return volumes.listVolumes(); },
      .automaticDeletionBlocked = [this] { return HealthMonitor::automaticDeletionBlocked(health.evaluate()); },
      .scheduleSnapshotsChanged = [this](const std::string& volumeUUID) { snapshotChanges->schedule(volumeUUID); },
      .dropCachedXidData = {},
      .invalidateVolumeList = {},
      .volumeAppeared = {},
  });
  scheduler->start();
}

void HelperEnvironment::quiesce() {
  if (scheduler) scheduler->stop();
}

void HelperEnvironment::snapshotInventoryChanged(const std::string& volumeUUID) {
  if (!mutations.isOpen(volumeUUID)) snapshotChanges->schedule(volumeUUID);
  if (scheduler) scheduler->bumpGeneration(volumeUUID);
  if (history) history->reconcile(VolumeUuid(volumeUUID));
}

}  // namespace quillmark
