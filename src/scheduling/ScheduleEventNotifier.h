// ScheduleEventNotifier: what the scheduler needs of its environment to tell clients and people of things.
// Threads: thread-safe. Errors: none; what can't be told is lost. Called outside every lock of the scheduler's.
#pragma once

#include <optional>
#include <string>

#include "journal/HelperNotification.h"
#include "scheduling/ScheduleEvent.h"
#include "scheduling/rules/SnapshotCadence.h"

namespace quillmark {

class ScheduleEventNotifier {
 public:
  virtual ~ScheduleEventNotifier() = default;
  // To every connected client. An event of no cadence has none.
  virtual void broadcast(const std::string& volumeUUID, std::optional<SnapshotCadence> cadence, ScheduleEvent event,
                         const std::string& message) = 0;
  // To every connected client: a JSON array of VolumeFreeSpaceState.
  virtual void pushFreeSpaceStates(const std::string& json) = 0;

  // To people, each time.
  virtual void deliver(const HelperNotification& notification) = 0;
  // To people, unless its key is within its cooldown.
  virtual void post(const HelperNotification& notification) = 0;
  // True while the condition of the key was posted and not resolved.
  [[nodiscard]] virtual bool isActive(const std::string& key) = 0;
  virtual void resolve(const std::string& key, const std::string& title, const std::string& message) = 0;
};

}  // namespace quillmark
