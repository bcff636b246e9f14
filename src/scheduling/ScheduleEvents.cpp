#include "scheduling/ScheduleEvents.h"

#include "platform/random.h"

namespace quillmark {

void ScheduleEvents::broadcastIfDue(const VolumeInfo& volume, std::optional<SnapshotCadence> cadence,
                                    ScheduleEvent event, Seconds interval, const std::string& message) {
  if (throttle_.isDue(volume.key(), event, cadence, interval)) {
    notifier_.broadcast(volume.uuid, cadence, event, message);
  }
}

void ScheduleEvents::send(const VolumeInfo& volume, std::optional<SnapshotCadence> cadence, ScheduleEvent event,
                          const std::string& message) {
  notifier_.broadcast(volume.uuid, cadence, event, message);
  std::optional<HelperNotification> notice = noticeOf(event, volume, message);
  if (!notice) return;
  notice->id = random_.uuid().upper();
  notice->timestamp = clock_.now();
  notifier_.deliver(*notice);
}

void ScheduleEvents::sendIfDue(const VolumeInfo& volume, std::optional<SnapshotCadence> cadence, ScheduleEvent event,
                               Seconds interval, const std::string& message) {
  if (throttle_.isDue(volume.key(), event, cadence, interval)) send(volume, cadence, event, message);
}

}  // namespace quillmark
