// EarlyWarning: tells people when a volume nears the free space below which its snapshots go, and when that is over.
// Threads: thread-compatible; confined to the scheduler's queue.
#pragma once

#include <set>
#include <vector>

#include "base/Uuid.h"
#include "scheduling/SchedulerServices.h"
#include "scheduling/VolumeFreeSpaceState.h"

namespace quillmark {

class EarlyWarning final {
 public:
  static constexpr Seconds cooldown{21600};

  explicit EarlyWarning(const SchedulerServices& services) : services_(services) {}

  // Of the volumes given. Eligible are those on which low-space pruning would run.
  void evaluate(const std::vector<VolumeFreeSpaceState>& states, const std::vector<APFSVolume>& volumes,
                const std::set<VolumeUuid>& eligible);

 private:
  void warn(const std::string& key, const VolumeFreeSpaceState& state, const std::string& name);
  void resolve(const std::string& key, const std::string& name);

  const SchedulerServices& services_;
};

}  // namespace quillmark
