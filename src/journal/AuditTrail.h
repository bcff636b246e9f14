// AuditTrail: where the record of an operation goes. The one who writes it lives elsewhere; without one nothing is kept.
// Threads: thread-safe; append returns once the record is on disk.
#pragma once

#include <optional>

#include "base/Error.h"
#include "journal/HelperEvent.h"

namespace quillmark {

class AuditTrail {
 public:
  virtual ~AuditTrail() = default;
  // Hands its failure back: what the failure means is the caller's to decide.
  [[nodiscard]] virtual std::optional<Error> append(const HelperEvent& event) = 0;
};

}  // namespace quillmark
