// ScheduleEvents: sends the scheduler's events, each as often as it may go out.
// Ownership: borrows the notifier and the chance that ids are drawn from.
// Threads:   thread-safe.
#pragma once

#include "scheduling/EventThrottle.h"
#include "scheduling/ScheduleEventNotifier.h"

namespace quillmark {

class Random;

class ScheduleEvents final {
 public:
  ScheduleEvents(Threads& threads, Random& random, ScheduleEventNotifier& notifier)
      : clock_(threads.clock()), random_(random), notifier_(notifier), throttle_(threads) {}

  // To clients alone.
  void broadcastIfDue(const VolumeInfo& volume, std::optional<SnapshotCadence> cadence, ScheduleEvent event,
                      Seconds interval, const std::string& message);
  // To clients and people.
  void send(const VolumeInfo& volume, std::optional<SnapshotCadence> cadence, ScheduleEvent event,
            const std::string& message);
  void sendIfDue(const VolumeInfo& volume, std::optional<SnapshotCadence> cadence, ScheduleEvent event,
                 Seconds interval, const std::string& message);

 private:
  Clock& clock_;
  Random& random_;
  ScheduleEventNotifier& notifier_;
  EventThrottle throttle_;
};

}  // namespace quillmark
