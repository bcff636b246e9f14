#include "scheduling/SnapshotTaker.h"

#include <fmt/format.h>

#include "platform/PlatformLog.h"
#include "platform/dispatch.h"
#include "scheduling/PeopleText.h"
#include "scheduling/rules/SchedulePlanner.h"
#include "snapshots/APFSManager.h"
#include "snapshots/LogNames.h"
#include "snapshots/SnapshotHistory.h"

namespace quillmark {

void SnapshotTaker::take(const VolumeInfo& volume, const SchedulePolicy& policy, SnapshotCadence cadence,
                         Date occurrence) {
  Clock& clock = services_.dispatch.clock();
  const Attempt attempt{volume, cadence, occurrence, clock.now(), clock.monotonic()};
  if (policy.pruneOnLowSpace) {
    if (const auto message = lackOfSpace(attempt)) return skip(attempt, *message);
  }
  const Date stamp = SnapshotReconciliation::scheduledDate(occurrence, clock.now(), slotTolerance);
  std::string name;
  try {
    name = services_.apfs.createSnapshot(volume, "", SnapshotNameInfo::Kind::automatic(cadence), stamp);
  } catch (const std::exception& failure) {
    return fail(attempt, asError(failure));
  }
  succeed(attempt, name, stamp != occurrence);
}

std::optional<std::string> SnapshotTaker::lackOfSpace(const Attempt& attempt) {
  const VolumeInfo& volume = attempt.volume;
  const auto space = meter_.measure(volume.uuid, volume.mountPoint, std::nullopt);
  if (!space || space->freeBytes >= space->lowSpaceBytesThreshold) return std::nullopt;
  return fmt::format("Skipped {} snapshot on {}: free {} is below minimum {}", word(attempt.cadence), volume.name,
                     fileSizeText(space->freeBytes), fileSizeText(space->lowSpaceBytesThreshold));
}

void SnapshotTaker::skip(const Attempt& attempt, const std::string& message) {
  attempts_.giveUp(attempt.volume.key(), attempt.cadence, attempt.occurrence);
  events_.broadcastIfDue(attempt.volume, attempt.cadence, ScheduleEvent::skippedLowSpace,
                         EventIntervals::skippedLowSpace, message);
  audit(attempt, std::nullopt, " skipped (low space)", message);
}

void SnapshotTaker::fail(const Attempt& attempt, const Error& failure) {
  attempts_.retryFrom(attempt.volume.key(), attempt.cadence, attempt.occurrence, attempt.beganAt + retryInterval);
  events_.sendIfDue(attempt.volume, attempt.cadence, ScheduleEvent::createFailed, EventIntervals::createFailed,
                    fmt::format("Failed to create {} snapshot: {}", word(attempt.cadence), failure.description()));
  audit(attempt, std::nullopt, " failed", failure.description());
}

void SnapshotTaker::succeed(const Attempt& attempt, const std::string& name, bool isCatchUp) {
  attempts_.forget(attempt.volume.key(), attempt.cadence);
  if (services_.history) tellHistory(attempt.volume, name);
  services_.platformLog.log(PlatformLogType::normal, LogNames::subsystem, schedulerLogCategory, "created " + name);
  std::string detail;
  if (isCatchUp) {
    detail = fmt::format(" (catch-up for missed {} occurrence)",
                         shortDateAndTime(services_.dispatch.clock().local(attempt.occurrence)));
  }
  audit(attempt, name, detail);
}

void SnapshotTaker::tellHistory(const VolumeInfo& volume, const std::string& name) {
  try {
    for (const SnapshotRecord& snapshot : services_.apfs.listSnapshots(volume)) {
      if (snapshot.name == name) services_.history->snapshotCreated(volume, snapshot);
    }
  } catch (const std::exception& failure) {
    services_.platformLog.log(PlatformLogType::error, LogNames::subsystem, schedulerLogCategory,
                              "history record failed: " + asError(failure).description());
  }
}

void SnapshotTaker::audit(const Attempt& attempt, std::optional<std::string> name,
                          const std::string& detailAfterCadence, std::optional<std::string> failure) {
  audit_.write(attempt.volume, {HelperEvent::Kind::createSnapshot, std::move(name),
                                fmt::format("scheduled {}{}", word(attempt.cadence), detailAfterCadence),
                                std::move(failure), attempt.startedAt});
}

}  // namespace quillmark
