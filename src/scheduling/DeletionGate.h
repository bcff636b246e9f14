// DeletionGate: whether anything may be deleted automatically at this moment: the user's switch is on, and the stores that
// say what must stay can be trusted.
// Threads: thread-safe; asks anew each time.
#pragma once

#include "scheduling/SchedulerServices.h"
#include "scheduling/rules/PolicySource.h"

namespace quillmark {

class DeletionGate final {
 public:
  explicit DeletionGate(const SchedulerServices& services) : services_(services) {}

  [[nodiscard]] bool isOpen() const {
    return services_.settings.current().value_or(HelperSettings()).automaticDeletionEnabled &&
           !services_.automaticDeletionBlocked();
  }

 private:
  const SchedulerServices& services_;
};

}  // namespace quillmark
