// HelperParts: the snapshot layer and the stores of one simulated process, with what a scheduler over them is given.
// Ownership: borrows the process, its platform, files and calls, which must outlive it.
// Threads:   confined to the simulation's thread.
#pragma once

#include "base/HelperLog.h"
#include "platform/Files.h"
#include "platform/sim/SimPlatform.h"
#include "platform/sim/Simulation.h"
#include "scheduling/HelperSettingsPersistence.h"
#include "scheduling/SchedulePersistence.h"
#include "scheduling/Scheduler.h"
#include "scheduling/VolumeClockPersistence.h"
#include "snapshots/APFSManager.h"
#include "snapshots/SnapshotMutationScope.h"
#include "snapshots/SnapshotNamePersistence.h"
#include "snapshots/SnapshotTagStore.h"
#include "snapshots/VolumeProtectionStore.h"
#include "snapshots/VolumeQueueRegistry.h"
#include "snapshots/VolumeService.h"
#include "tests/snapshots/SimDiskutil.h"

namespace quillmark {

class RecordingLog final : public HelperLog {
 public:
  std::vector<std::string> lines;

 protected:
  void emit(LogLevel, std::string_view message, CodeLocation) override { lines.emplace_back(message); }
};

class HelperParts final {
 public:
  HelperParts(sim::Life& process, sim::SimPlatform& machine, sim::SimVolumes& volumes, Posix& stateFiles,
              SnapshotCalls& snapshotCalls)
      : life(process), sim(machine), files(stateFiles), calls(snapshotCalls) {
    for (const std::string& directory : {paths.userMountRoot, paths.privateMountRoot, paths.stateDirectory}) {
      createDirectories(sim.files(), directory, 0755);
    }
    sim.processes().script(paths.diskutil, [this, &volumes](const ProcessRequest& request) {
      return sim::SimProgram{
          .output = snapshotsAsDiskutilListsThem(volumes, platform.propertyLists, request.arguments.back())};
    });
  }

  [[nodiscard]] SchedulerServices services(SnapshotProtection& guarding, AuditTrail& audit,
                                           ScheduleEventNotifier& notifier) {
    return {.dispatch = life.dispatch(),
            .random = life.random(),
            .calls = calls,
            .disks = platform.disks,
            .platformLog = sim.log(),
            .log = log,
            .paths = paths,
            .apfs = apfs,
            .volumeQueues = queues,
            .mutations = mutations,
            .protection = guarding,
            .names = displayNames,
            .tags = tags,
            .audit = audit,
            .schedules = schedules,
            .settings = settings,
            .clocks = clocks,
            .notifier = notifier,
            .volumeList = [this] { return volumeService.listVolumes(); },
            .automaticDeletionBlocked = {},
            .scheduleSnapshotsChanged = [](const std::string&) {},
            .dropCachedXidData = {},
            .invalidateVolumeList = {},
            .volumeAppeared = {}};
  }

  sim::Life& life;
  sim::SimPlatform& sim;
  Posix& files;
  SnapshotCalls& calls;
  const Platform platform = sim.platform();
  const HostPaths& paths = sim.paths();
  RecordingLog log;
  VolumeProtectionStore protection{life.dispatch(), files, life.random(), sim.log(), platform.attributes, paths};
  SnapshotNamePersistence displayNames{life.dispatch(), files, life.random(), sim.log(), paths};
  SnapshotTagStore tags{life.dispatch(), files, life.random(), platform.attributes, paths};
  SnapshotMutationScope mutations{life.dispatch()};
  VolumeQueueRegistry queues{life.dispatch()};
  SnapshotIdentity identity{life.dispatch(),
                            platform.processes,
                            platform.propertyLists,
                            sim.files(),
                            life.random(),
                            sim.log(),
                            paths,
                            SnapshotIdentity::FileIds::areXids};
  SnapshotServices managed{calls, platform.disks, sim.files(), sim.log(), paths, identity, {}};
  APFSManager apfs{managed, "apfs"};
  VolumeService volumeService{life.dispatch(),    platform.disks,         calls,
                              platform.processes, platform.propertyLists, paths};
  SchedulePersistence schedules{life.dispatch(), files, life.random(), sim.log(), paths};
  HelperSettingsPersistence settings{life.dispatch(), files, life.random(), log, paths};
  VolumeClockPersistence clocks{life.dispatch(), files, life.random(), sim.log(), paths};
};

}  // namespace quillmark
