// AttemptRecords: which slots of which cadences aren't to be tried, or not yet. Kept in memory only.
// Threads: thread-safe.
#pragma once

#include <map>
#include <string>

#include "base/Uuid.h"
#include "platform/sync.h"
#include "scheduling/rules/SnapshotCadence.h"

namespace quillmark {

class AttemptRecords final {
 public:
  explicit AttemptRecords(Threads& threads) : records_(threads) {}

  [[nodiscard]] bool mayTry(const VolumeUuid& volume, SnapshotCadence cadence, Date occurrence, Date now);
  // Not before that time, as long as the slot lasts.
  void retryFrom(const VolumeUuid& volume, SnapshotCadence cadence, Date occurrence, Date notBefore);
  void giveUp(const VolumeUuid& volume, SnapshotCadence cadence, Date occurrence);
  // A snapshot of the cadence was made.
  void forget(const VolumeUuid& volume, SnapshotCadence cadence);

 private:
  struct AttemptRecord {
    Date occurrence;
    Date notBefore;
  };
  Guarded<std::map<std::string, AttemptRecord>> records_;
};

}  // namespace quillmark
