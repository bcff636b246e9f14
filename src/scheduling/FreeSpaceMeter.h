// FreeSpaceMeter: measures volumes and remembers what it found. What volumes had that went away stays remembered.
// Threads: thread-safe; measuring asks the platform outside the lock.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/Uuid.h"
#include "platform/sync.h"
#include "scheduling/DeletionGate.h"
#include "scheduling/VolumeFreeSpaceState.h"

namespace quillmark {

enum class FreeSpaceTickReason { timer, diskEvent };

class FreeSpaceMeter final {
 public:
  static constexpr Seconds tickInterval{900};
  static constexpr Seconds leastTimeBetweenTicks{60};  // when it is a disk event that asks

  FreeSpaceMeter(const SchedulerServices& services, const DeletionGate& gate);

  // Without a path the volume is looked for, without a total it is measured too. Absent when that can't be done.
  std::optional<VolumeFreeSpaceState> measure(const std::string& uuid, const std::optional<std::string>& mountPath,
                                              std::optional<std::int64_t> totalBytes);
  [[nodiscard]] std::optional<VolumeFreeSpaceState> last(const VolumeUuid& volume);
  [[nodiscard]] std::vector<VolumeFreeSpaceState> states();

  // False when it isn't time for one.
  [[nodiscard]] bool beginTick(FreeSpaceTickReason reason);

 private:
  struct State {
    std::map<VolumeUuid, VolumeFreeSpaceState> states;
    std::optional<Date> nextTickAt;
    std::optional<Date> lastTickAt;
  };
  [[nodiscard]] std::optional<std::string> mountPathOf(const std::string& uuid) const;
  [[nodiscard]] std::optional<Date> nextPruneCheck(const VolumeUuid& volume, bool pruneOnLowSpace);

  const SchedulerServices& services_;
  const DeletionGate& gate_;
  Guarded<State> state_;
};

}  // namespace quillmark
