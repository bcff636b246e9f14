// VolumeService: which volumes this system can work on right now, sorted for display. One for the process.
// Threads: thread-safe; the light form starts no process and doesn't wait, the detailed one runs diskutil, with its
//          answers kept for a minute while the set of volumes stays the same.
// Errors:  none; what can't be found is left out or empty.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/HostPaths.h"
#include "platform/sync.h"
#include "snapshots/APFSVolume.h"
#include "snapshots/BoundedProcessRunner.h"
#include "snapshots/DiskutilFacts.h"

namespace quillmark {

class Clock;
class Disks;
class Dispatch;
class Processes;
class SnapshotCalls;

class VolumeService final {
 public:
  VolumeService(Dispatch& dispatch, Disks& disks, SnapshotCalls& calls, Processes& processes,
                PropertyLists& propertyLists, const HostPaths& paths);

  // forceRefresh counts only with detailed.
  [[nodiscard]] std::vector<APFSVolume> listVolumes(bool detailed = false, bool forceRefresh = false);

 private:
  struct Candidate;
  struct Facts {
    APFSContainers containers;
    // A key without a value: asked, and there was no answer.
    std::map<std::string, std::optional<DiskutilInfoSummary>> info;
    Date takenAt;
    std::vector<std::string> signature;
  };

  [[nodiscard]] std::vector<Candidate> candidates(bool detailed);
  [[nodiscard]] std::optional<Candidate> candidateAt(const std::string& path, bool detailed);
  [[nodiscard]] Facts diskutilFacts(const std::vector<std::string>& bsdNames, const std::vector<std::string>& signature,
                                    bool forceRefresh);
  [[nodiscard]] std::optional<DiskutilInfoSummary> runInfo(const std::string& bsdName);
  [[nodiscard]] APFSContainers runList();
  // Absent when the bus rules the volume out.
  [[nodiscard]] std::optional<APFSVolume> build(const Candidate& candidate, bool detailed, const Facts& facts);
  [[nodiscard]] std::optional<std::string> busFromRegistry(const std::string& bsdName);
  [[nodiscard]] std::int64_t countFromRegistry(const std::string& bsdName);
  void fillCapacities(APFSVolume& volume, bool detailed);
  void fillContainer(APFSVolume& volume, bool detailed, const Facts& facts);

  Disks& disks_;
  SnapshotCalls& calls_;
  PropertyLists& propertyLists_;
  Clock& clock_;
  const std::string diskutil_;
  BoundedProcessRunner runner_;

  Mutex factsLock_;
  std::optional<Facts> facts_ GUARDED_BY(factsLock_);
};

}  // namespace quillmark
