#include "service/ScheduleNotices.h"

#include "notifications/HelperNotifications.h"
#include "service/ClientConnections.h"

namespace quillmark {

void ScheduleNotices::broadcast(const std::string& volumeUUID, std::optional<SnapshotCadence> cadence,
                                ScheduleEvent event, const std::string& message) {
  connections_.push("scheduleEventWithVolumeUUID:cadenceRaw:eventRaw:message:",
                    {volumeUUID, std::string(cadence ? word(*cadence) : ""), std::string(word(event)), message});
}

void ScheduleNotices::pushFreeSpaceStates(const std::string& json) {
  connections_.push("freeSpaceUpdateWithJsonStates:", {JsonArgument{json, json.size()}});
}

void ScheduleNotices::deliver(const HelperNotification& notification) { notifications_.deliver(notification); }

void ScheduleNotices::post(const HelperNotification& notification) { notifications_.post(notification); }

bool ScheduleNotices::isActive(const std::string& key) { return notifications_.isActive(key); }

void ScheduleNotices::resolve(const std::string& key, const std::string& title, const std::string& message) {
  notifications_.resolve(key, title, message);
}

}  // namespace quillmark
