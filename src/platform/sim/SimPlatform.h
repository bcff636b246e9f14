// SimPlatform: one life's simulated facilities, bundled as the Platform that the service is made over, each with its
// twin's own type for the test.
//
//   SimVolumes volumes;                                     // the machine's
//   Life& life = simulation.startLife("helper");
//   SimPlatform platform(life, volumes);
//   simulation.run(life, [&] { ... HelperProcess over platform.platform() ... });
//   life.kill();
//   SimPlatform next(simulation.startLife("helper"), volumes, {.files = platform.files().copyForSuccessor()});
//
// A fault plan that kills ends the life; a life that ended changes no file any more.
// Ownership: owns the facilities; borrows the life, whose dispatch, clock and chance it shows, and the volumes.
// Threads:   confined to the simulation's thread.
#pragma once

#include <memory>

#include "platform/Platform.h"
#include "platform/linux/PropertyList.h"
#include "platform/sim/SimDirectoryReader.h"
#include "platform/sim/SimDisks.h"
#include "platform/sim/SimFileWork.h"
#include "platform/sim/SimPeerIdentities.h"
#include "platform/sim/SimPlatformLog.h"
#include "platform/sim/SimPosix.h"
#include "platform/sim/SimPowerSources.h"
#include "platform/sim/SimProcesses.h"
#include "platform/sim/SimSnapshotCalls.h"
#include "platform/sim/SimThisProcess.h"
#include "platform/sim/SimThreadIdentity.h"
#include "platform/sim/SimTransport.h"
#include "platform/sim/SimUsers.h"
#include "platform/sim/SimVolumeAttributes.h"

namespace quillmark::sim {

struct SimPlatformOptions {
  // What an earlier life left; absent: a machine as it is installed.
  std::unique_ptr<SimPosix> files = {};
  SimTransportOptions transport = {};
  Bundle bundle = {};
};

// The system's paths below a prefix.
[[nodiscard]] HostPaths hostPathsUnder(const std::string& prefix);

class SimPlatform final {
 public:
  SimPlatform(Life& life, SimVolumes& volumes, SimPlatformOptions options = {});
  SimPlatform(const SimPlatform&) = delete;
  SimPlatform& operator=(const SimPlatform&) = delete;

  [[nodiscard]] Platform platform();

  [[nodiscard]] SimPosix& files() { return *files_; }
  [[nodiscard]] SimFileWork& fileWork() { return *fileWork_; }
  [[nodiscard]] SimSnapshotCalls& snapshots() { return snapshots_; }
  [[nodiscard]] SimVolumeAttributes& attributes() { return attributes_; }
  [[nodiscard]] SimDirectoryReader& directories() { return directories_; }
  [[nodiscard]] SimDisks& disks() { return disks_; }
  [[nodiscard]] SimProcesses& processes() { return processes_; }
  [[nodiscard]] SimTransport& transport() { return transport_; }
  [[nodiscard]] SimPeerIdentities& peers() { return peers_; }
  [[nodiscard]] SimPlatformLog& log() { return log_; }
  [[nodiscard]] SimThisProcess& process() { return process_; }
  [[nodiscard]] SimUsers& users() { return users_; }
  [[nodiscard]] SimPowerSources& power() { return power_; }
  [[nodiscard]] SimThreadIdentity& threadIdentities() { return threadIdentities_; }
  [[nodiscard]] const HostPaths& paths() const { return paths_; }

 private:
  Life& life_;
  const std::shared_ptr<SimPosix> files_;
  const std::shared_ptr<SimFileWork> fileWork_;  // on the same tree
  const HostPaths paths_;
  const Bundle bundle_;
  SimSnapshotCalls snapshots_;
  SimVolumeAttributes attributes_;
  SimDirectoryReader directories_;
  SimDisks disks_;
  SimProcesses processes_;
  os::LinuxPropertyLists propertyLists_;
  SimTransport transport_;
  SimPeerIdentities peers_;
  SimPlatformLog log_;
  SimThisProcess process_;
  SimUsers users_;
  SimPowerSources power_;
  SimThreadIdentity threadIdentities_;
};

}  // namespace quillmark::sim
