// EventThrottle: how often each event of a volume goes out. Kept in memory only.
// Threads: thread-safe.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "base/Uuid.h"
#include "platform/sync.h"
#include "scheduling/ScheduleEvent.h"
#include "scheduling/rules/SnapshotCadence.h"

namespace quillmark {

class EventThrottle final {
 public:
  explicit EventThrottle(Threads& threads) : clock_(threads.clock()), lastNotifiedAt_(threads) {}

  // True when the interval has passed since the last true, which this one then is. A clock that was set back counts
  // as time that has passed.
  [[nodiscard]] bool isDue(const VolumeUuid& volume, ScheduleEvent event, std::optional<SnapshotCadence> cadence,
                           Seconds interval);

 private:
  Clock& clock_;
  Guarded<std::map<std::string, Date>> lastNotifiedAt_;
};

}  // namespace quillmark
