// RepairFailures: why indexing last failed, per volume, for the health report. Gone once a run succeeds.
// Threads: thread-safe.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/Error.h"
#include "base/Uuid.h"
#include "history/SnapshotHistoryStore.h"
#include "platform/sync.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

class RepairFailures final {
 public:
  explicit RepairFailures(Threads& threads) : texts_(threads) {}
  // At the snapshot that was being worked on, where it is known.
  void record(const VolumeInfo& volume, const std::optional<StoredSnapshot>& snapshot, const Error& failure);
  void forget(const VolumeUuid& volume);
  [[nodiscard]] bool isEmpty();
  [[nodiscard]] std::vector<std::string> textsOf(const std::set<VolumeUuid>& volumes);

 private:
  Guarded<std::map<VolumeUuid, std::string>> texts_;
};

}  // namespace quillmark
