#include "journal/ActivityLog.h"

#include "platform/HostPaths.h"

namespace quillmark {

ActivityLog::ActivityLog(Dispatch& dispatch, Posix& posix, PlatformLog& log, const HostPaths& paths)
    : clock_(dispatch.clock()), log_(dispatch, posix, log, activityLogDescription(paths)), health_(dispatch),
      onEvent_(dispatch) {}

std::optional<Error> ActivityLog::append(const HelperEvent& event) {
  std::optional<Error> failure = log_.append(event);
  note(failure);
  if (!failure) {
    if (const std::shared_ptr<OnEvent> hook = onEvent()) (*hook)(event);
  }
  return failure;
}

void ActivityLog::note(const std::optional<Error>& failure) {
  const Date now = clock_.now();
  health_.with([&](HealthState& state) {
    if (!failure) {
      state.consecutiveFailedWrites = 0;
      return;
    }
    ++state.consecutiveFailedWrites;
    ++state.failedWriteCount;
    state.lastFailureAt = now;
    state.lastWriteError = failure->description();
  });
}

AuditLogHealth ActivityLog::health() {
  return health_.with([](const HealthState& state) {
    return AuditLogHealth{state.failedWriteCount, state.consecutiveFailedWrites, state.lastFailureAt,
                          state.lastWriteError};
  });
}

ActivityLog::ReadBatch ActivityLog::readSince(std::optional<JSONLinesCursor> cursor) const {
  auto batch = log_.readSince(cursor);
  return {std::move(batch.records), batch.cursor, batch.resumedCursor, std::move(batch.error),
          batch.skippedCorruptLines};
}

void ActivityLog::setOnEvent(OnEvent onEvent) {
  auto hook = onEvent ? std::make_shared<OnEvent>(std::move(onEvent)) : nullptr;
  onEvent_.with([&](std::shared_ptr<OnEvent>& held) { held.swap(hook); });
}

std::shared_ptr<ActivityLog::OnEvent> ActivityLog::onEvent() {
  return onEvent_.with([](const std::shared_ptr<OnEvent>& held) { return held; });
}

}  // namespace quillmark
