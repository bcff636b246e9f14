#include "service/HelperEnvironment.h"

#include "platform/PlatformLog.h"
#include "service/StateDirectory.h"
#include "snapshots/LogNames.h"
#include "snapshots/SnapshotHistory.h"

namespace quillmark {
namespace {

// How long clients have at the end to take their last replies.
constexpr std::chrono::seconds lastReplies{1};

}  // namespace

HelperEnvironment::HelperEnvironment(const Platform& platformFacilities, HelperLog& helperLog,
                                     std::function<void()> exitProcess)
    : platform(platformFacilities), log(helperLog), connections(platform.dispatch),
      identity(platform.dispatch, platform.processes, platform.propertyLists, platform.posix, platform.random,
               platform.log, platform.paths, SnapshotIdentity::FileIds::areXids),
      snapshots{platform.snapshots, platform.disks, platform.posix, platform.log, platform.paths, identity, {}},
      apfs(snapshots, LogNames::apfs), volumes(platform.dispatch, platform.disks, platform.snapshots,
                                               platform.processes, platform.propertyLists, platform.paths),
      health(platform.dispatch, platform.random, log, {}),
      shutdown(platform.dispatch, log, {nullptr, [this] { connections.flush(lastReplies); }, std::move(exitProcess)}),
      snapshotChanges(std::make_shared<SnapshotChangePush>(platform.dispatch, connections)),
      mountPaths(platform.dispatch), startedOnce_(platform.dispatch, false) {}

void HelperEnvironment::start() {
  if (startedOnce_.with([](bool& started) { return std::exchange(started, true); })) return;
  secureStateDirectory(platform.posix, platform.paths);
  // Before anything can start new ones: what indexing left mounted when it was cut off.
  apfs.cleanStaleIndexMounts({});
  snapshots.callbacks.inventoryChanged = [this](const std::string& volumeUUID) {
    snapshotInventoryChanged(volumeUUID);
  };
}

void HelperEnvironment::snapshotInventoryChanged(const std::string& volumeUUID) {
  snapshotChanges->schedule(volumeUUID);
  if (history) history->reconcile(VolumeUuid(volumeUUID));
}

}  // namespace quillmark
