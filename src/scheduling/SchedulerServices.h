// SchedulerServices: what the scheduler and its collaborators work with.
// Ownership: borrows everything; all outlives the scheduler and the work it has queued.
// Threads:   the callbacks are called from the scheduler's queue and from volumes' queues, and don't throw.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/HostPaths.h"
#include "snapshots/APFSVolume.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

class APFSManager;
class AuditTrail;
class Disks;
class Dispatch;
class HelperLog;
class PlatformLog;
class Random;
class ScheduleEventNotifier;
class SchedulePersistence;
class SettingsSource;
class SnapshotCalls;
class SnapshotDisplayNames;
class SnapshotHistory;
class SnapshotMutationScope;
class SnapshotProtection;
class SnapshotTags;
class VolumeClockPersistence;
class VolumeQueueRegistry;
struct Xid;

inline constexpr std::string_view schedulerLogCategory = "scheduler";

struct SchedulerServices {
  Dispatch& dispatch;
  Random& random;
  SnapshotCalls& calls;
  Disks& disks;
  PlatformLog& platformLog;
  HelperLog& log;
  HostPaths paths;

  APFSManager& apfs;
  VolumeQueueRegistry& volumeQueues;
  SnapshotMutationScope& mutations;
  SnapshotProtection& protection;
  SnapshotDisplayNames& names;
  SnapshotTags& tags;
  AuditTrail& audit;

  SchedulePersistence& schedules;
  SettingsSource& settings;
  VolumeClockPersistence& clocks;
  ScheduleEventNotifier& notifier;
  SnapshotHistory* history = nullptr;  // absent: no history in this build, or its store can't be opened

  std::function<std::vector<APFSVolume>()> volumeList;
  // Judges the health of the service anew.
  std::function<bool()> automaticDeletionBlocked;
  // One change notice to clients for a batch of changes.
  std::function<void(const std::string& volumeUUID)> scheduleSnapshotsChanged;

  // These may be empty.
  std::function<void(const VolumeInfo& volume, Xid xid)> dropCachedXidData;
  std::function<void()> invalidateVolumeList;
  // A file system was mounted: the volume layer hears of it, and history looks for work.
  std::function<void(const std::string& volumePath)> volumeAppeared;
  // One was that no disk holds.
  std::function<void(const std::string& path)> foreignAppeared = {};
};

}  // namespace quillmark
