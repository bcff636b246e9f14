// AuditAttempt: one attempt at a change, from its begin to its audit record. A command is one attempt, a batch one for
// each item.
// Ownership: borrows the service, which outlives it.
// Threads:   confined to the thread that runs the attempt.
#pragma once

#include <optional>
#include <string>

#include "base/Error.h"
#include "journal/HelperEvent.h"
#include "platform/clock.h"

namespace quillmark {

class HelperService;

// What the record will say, filled as the attempt learns it.
struct AuditDraft {
  HelperEvent::Kind kind;
  std::string operation;  // the audit word: "createSnapshot"
  std::string volumeUUID;
  std::string volumeName;  // empty until the volume is resolved
  std::optional<std::string> snapshotName;
  std::string failureDetail;  // the record's detail when the attempt fails
};

class AuditAttempt final {
 public:
  AuditAttempt(HelperService& service, MonotonicTime started, AuditDraft draft)
      : draft_(std::move(draft)), service_(service), started_(started) {}

  [[nodiscard]] AuditDraft& draft() { return draft_; }
  // Each writes the record, once, with texts cut to a bound: no client can push the others' records out of the log. A success answers the error that its reply carries when the record could not be stored.
  [[nodiscard]] std::optional<Error> succeeded(const std::string& detail);
  void failed(const Error& error);

 private:
  [[nodiscard]] HelperEvent makeEvent(const std::string& detail);

  AuditDraft draft_;
  HelperService& service_;
  const MonotonicTime started_;
};

}  // namespace quillmark
