// HelperEnvironment: the one owner of everything long-lived in the service. It wires; it decides nothing.
// A pointer is a part that isn't built, or whose store can't be opened: null, its features are off and the service goes on.
// Ownership: owns its members, borrows the platform.
// Threads:   members are set before the listener is resumed and read from every queue afterwards.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "history/DiffCache.h"
#include "history/ExclusionPolicy.h"
#include "history/LocalComparison.h"
#include "history/MemoryReturn.h"
#include "journal/ActivityLog.h"
#include "notifications/HelperNotifications.h"
#include "platform/Platform.h"
#include "scheduling/HelperSettingsPersistence.h"
#include "scheduling/SchedulePersistence.h"
#include "scheduling/VolumeClockPersistence.h"
#include "service/ClientConnections.h"
#include "service/HealthMonitor.h"
#include "service/ScheduleNotices.h"
#include "service/ShutdownCoordinator.h"
#include "service/SnapshotChangePush.h"
#include "snapshots/APFSManager.h"
#include "snapshots/HomeDirectories.h"
#include "snapshots/MountPinRegistry.h"
#include "snapshots/PeerAuthorization.h"
#include "snapshots/SafeFS.h"
#include "snapshots/SnapshotIdentity.h"
#include "snapshots/SnapshotMutationScope.h"
#include "snapshots/SnapshotNamePersistence.h"
#include "snapshots/SnapshotTagStore.h"
#include "snapshots/VolumeProtectionStore.h"
#include "snapshots/VolumeQueueRegistry.h"
#include "snapshots/VolumeService.h"

namespace quillmark {

class HelperLog;
class Scheduler;
class SnapshotHistoryManager;
class SnapshotSizes;

class HelperEnvironment final {
 public:
  struct Hooks {
    std::function<void()> exitProcess;
    std::vector<HealthNote> healthNotes;  // what the backend has to tell administrators
  };
  HelperEnvironment(const Platform& platform, HelperLog& log, Hooks hooks);

  // Before the listener is resumed; a second call does nothing.
  void start();

  // Nothing begins of itself afterwards: the timers are stopped.
  void quiesce();

  const Platform platform;
  HelperLog& log;

  SchedulePersistence persistence;
  HelperSettingsPersistence settings;
  VolumeClockPersistence clocks;
  VolumeProtectionStore protection;
  SnapshotNamePersistence names;
  SnapshotTagStore tags;
  ActivityLog audit;
  SnapshotMutationScope mutations;
  MountPinRegistry mountPins;
  VolumeQueueRegistry volumeQueues;

  ClientConnections connections;
  HelperNotifications notifications;
  SnapshotIdentity identity;
  SnapshotServices snapshots;
  APFSManager apfs;
  VolumeService volumes;
  HomeDirectories homes;
  ExclusionPolicy exclusions;
  PeerAuthorization peerAuthorization;
  SafeFS safeFiles;
  DiffCache diffCache;
  HealthMonitor health;
  ShutdownCoordinator shutdown;
  const std::shared_ptr<SnapshotChangePush> snapshotChanges;
  // Held from the look at a user's mount path to the end of mounting or unmounting there, so that one client never
  // removes the directory on which another is about to mount.
  Mutex mountPaths;
  MemoryReturn memory;
  LocalComparisons localComparisons;

  // Present from start() on.
  std::shared_ptr<Scheduler> scheduler;
  std::shared_ptr<SnapshotHistoryManager> history;
  std::optional<std::string> historyFailureDescription;  // why there is none
  SnapshotSizes* sizes = nullptr;

 private:
  [[nodiscard]] HealthProbes probes(std::vector<HealthNote> notes);
  void mergeNewDefaults();
  void openHistory();
  void installHistoryProviders();
  void startHistory();
  void startScheduler();
  void volumeAppeared(const std::string& volumePath);
  void snapshotInventoryChanged(const std::string& volumeUUID);

  ScheduleNotices scheduleNotices_;
  Guarded<bool> startedOnce_;
};

}  // namespace quillmark
