// SnapshotTaker: takes one scheduled snapshot, or says why not.
// Threads: confined to the volume's queue.
// Errors:  none; what failed is in the audit trail, told to clients and people, and tried again later.
#pragma once

#include "base/Error.h"
#include "scheduling/AttemptRecords.h"
#include "scheduling/FreeSpaceMeter.h"
#include "scheduling/ScheduleAudit.h"
#include "scheduling/ScheduleEvents.h"
#include "scheduling/rules/SchedulePolicy.h"

namespace quillmark {

class SnapshotTaker final {
 public:
  // A snapshot taken within this time of its slot's start bears the slot's time, a later one the real one.
  static constexpr Seconds slotTolerance{300};
  static constexpr Seconds retryInterval{600};

  SnapshotTaker(const SchedulerServices& services, FreeSpaceMeter& meter, AttemptRecords& attempts,
                ScheduleEvents& events, const ScheduleAudit& audit)
      : services_(services), meter_(meter), attempts_(attempts), events_(events), audit_(audit) {}

  void take(const VolumeInfo& volume, const SchedulePolicy& policy, SnapshotCadence cadence, Date occurrence);

 private:
  struct Attempt {
    const VolumeInfo& volume;
    SnapshotCadence cadence;
    Date occurrence;
    Date beganAt;
    MonotonicTime startedAt;
  };
  [[nodiscard]] std::optional<std::string> lackOfSpace(const Attempt& attempt);
  void skip(const Attempt& attempt, const std::string& message);
  void fail(const Attempt& attempt, const Error& failure);
  void succeed(const Attempt& attempt, const std::string& name, bool isCatchUp);
  void tellHistory(const VolumeInfo& volume, const std::string& name);
  void audit(const Attempt& attempt, std::optional<std::string> name, const std::string& detailAfterCadence,
             std::optional<std::string> failure = {});

  const SchedulerServices& services_;
  FreeSpaceMeter& meter_;
  AttemptRecords& attempts_;
  ScheduleEvents& events_;
  const ScheduleAudit& audit_;
};

}  // namespace quillmark
