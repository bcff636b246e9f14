// HelperEnvironment: the one owner of everything long-lived in the service. It wires; it decides nothing.
// A part that isn't built, or whose store can't be opened, is null: its features are off and the service goes on.
// Ownership: owns its members, borrows the platform.
// Threads:   members are set before the listener is resumed and read from every queue afterwards.
#pragma once

#include <memory>
#include <string>

#include "platform/Platform.h"
#include "service/ClientConnections.h"
#include "service/HealthMonitor.h"
#include "service/ShutdownCoordinator.h"
#include "service/SnapshotChangePush.h"
#include "snapshots/APFSManager.h"
#include "snapshots/SnapshotIdentity.h"
#include "snapshots/VolumeService.h"

namespace quillmark {

class AuditTrail;
class HelperLog;
class PolicySource;
class SettingsSource;
class SnapshotDisplayNames;
class SnapshotHistory;
class SnapshotProtection;
class SnapshotSizes;
class SnapshotTags;

class HelperEnvironment final {
 public:
  HelperEnvironment(const Platform& platform, HelperLog& log, std::function<void()> exitProcess);

  // Before the listener is resumed; a second call does nothing.
  void start();

  const Platform platform;
  HelperLog& log;

  ClientConnections connections;
  SnapshotIdentity identity;
  SnapshotServices snapshots;
  APFSManager apfs;
  VolumeService volumes;
  HealthMonitor health;
  ShutdownCoordinator shutdown;
  const std::shared_ptr<SnapshotChangePush> snapshotChanges;
  // Held from the look at a user's mount path to the end of mounting or unmounting there, so that one client never
  // removes the directory on which another is about to mount.
  Mutex mountPaths;

  AuditTrail* audit = nullptr;
  PolicySource* policies = nullptr;
  SettingsSource* settings = nullptr;
  SnapshotProtection* protection = nullptr;
  SnapshotTags* tags = nullptr;
  SnapshotDisplayNames* names = nullptr;
  SnapshotHistory* history = nullptr;
  SnapshotSizes* sizes = nullptr;

 private:
  void snapshotInventoryChanged(const std::string& volumeUUID);

  Guarded<bool> startedOnce_;
};

}  // namespace quillmark
