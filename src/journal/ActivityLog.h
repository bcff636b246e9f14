// ActivityLog: the audit trail on disk, with a record of how its writing fares and one listener for what was stored.
//
//   ActivityLog activity(dispatch, posix, platformLog, paths);
//   activity.setOnEvent([&](const HelperEvent& event) { digest.add(event); });
//
// A reader in another process needs no dispatch: JSONLinesReader<HelperEvent> over activityLogDescription(paths).
// Ownership: borrows the dispatch, whose clock it reads, the file calls and the platform's log.
// Threads:   thread-safe; append waits for the disk. onEvent runs on the appending thread, outside every lock and queue.
// Errors:    append hands its failure back. onEvent must not throw.
// Invariant: onEvent hears only of events that are on disk.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/UniqueFunction.h"
#include "journal/AuditTrail.h"
#include "journal/JSONLinesLog.h"
#include "platform/sync.h"
#include "wire/Records.h"

namespace quillmark {

struct HostPaths;

class ActivityLog final : public AuditTrail {
 public:
  using OnEvent = UniqueFunction<void(const HelperEvent&)>;

  struct ReadBatch {
    std::vector<HelperEvent> events;
    std::optional<JSONLinesCursor> cursor;
    bool resumedCursor = false;
    std::optional<std::string> error;
    std::int64_t skippedCorruptLines = 0;
  };

  ActivityLog(Dispatch& dispatch, Posix& posix, PlatformLog& log, const HostPaths& paths);

  [[nodiscard]] std::optional<Error> append(const HelperEvent& event) override;
  [[nodiscard]] AuditLogHealth health();
  [[nodiscard]] ReadBatch readSince(std::optional<JSONLinesCursor> cursor) const;

  // Set once at start-up; none is called before. It may be called by several threads at once.
  void setOnEvent(OnEvent onEvent);
  [[nodiscard]] std::shared_ptr<OnEvent> onEvent();

 private:
  struct HealthState {
    std::int64_t failedWriteCount = 0;  // only rises
    std::int64_t consecutiveFailedWrites = 0;
    std::optional<Date> lastFailureAt;
    std::optional<std::string> lastWriteError;
  };

  void note(const std::optional<Error>& failure);

  Clock& clock_;
  JSONLinesLog<HelperEvent> log_;
  Guarded<HealthState> health_;
  Guarded<std::shared_ptr<OnEvent>> onEvent_;
};

}  // namespace quillmark
