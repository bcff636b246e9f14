// ScheduleAudit: writes the audit records of what the scheduler does by itself.
// Threads: thread-safe. Errors: none; a record that can't be stored shows in the trail's own health.
#pragma once

#include <optional>
#include <string>

#include "journal/HelperEvent.h"
#include "platform/clock.h"
#include "scheduling/SchedulerServices.h"

namespace quillmark {

class ScheduleAudit final {
 public:
  // A failure's message makes it a record of failure.
  struct Record {
    HelperEvent::Kind kind;
    std::optional<std::string> snapshotName;
    std::string detail;
    std::optional<std::string> errorMessage;
    MonotonicTime startedAt;
  };

  explicit ScheduleAudit(const SchedulerServices& services) : services_(services) {}
  void write(const VolumeInfo& volume, Record record) const;

 private:
  const SchedulerServices& services_;
};

}  // namespace quillmark
