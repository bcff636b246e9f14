// ScheduleNotices: carries the scheduler's news to clients and people.
// Ownership: borrows both, which must outlive it. Threads: thread-safe.
#pragma once

#include "scheduling/ScheduleEventNotifier.h"

namespace quillmark {

class ClientConnections;
class HelperNotifications;

class ScheduleNotices final : public ScheduleEventNotifier {
 public:
  ScheduleNotices(ClientConnections& connections, HelperNotifications& notifications)
      : connections_(connections), notifications_(notifications) {}

  void broadcast(const std::string& volumeUUID, std::optional<SnapshotCadence> cadence, ScheduleEvent event,
                 const std::string& message) override;
  void pushFreeSpaceStates(const std::string& json) override;
  void deliver(const HelperNotification& notification) override;
  void post(const HelperNotification& notification) override;
  [[nodiscard]] bool isActive(const std::string& key) override;
  void resolve(const std::string& key, const std::string& title, const std::string& message) override;

 private:
  ClientConnections& connections_;
  HelperNotifications& notifications_;
};

}  // namespace quillmark
