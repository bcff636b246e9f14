// HistoryProviders: what other rooms fill in for the history. Each may be empty, and then the default named at it holds.
// Threads: called from any queue.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/Xid.h"
#include "history/index/ExclusionRules.h"
#include "scheduling/rules/HelperSettings.h"

namespace quillmark {

struct ActiveIndexProgress {
  std::string volumeUUID;  // lower case
  Xid snapshotXID;
  std::string phase;  // "queued", "indexing" or "done"
  std::int64_t filesScanned = 0;
  bool operator==(const ActiveIndexProgress&) const = default;
};

struct HistoryProviders {
  std::function<void(const ActiveIndexProgress&)> progressReporter;                            // nobody is told
  std::function<IndexingMode()> indexingMode;                                                  // fullScan
  std::function<bool(const std::string& volumeUUID)> volumeTracked;                            // true
  std::function<bool()> indexOnBattery;                                                        // true
  std::function<std::optional<ExclusionRules>(const std::string& mountPoint)> exclusionRules;  // none
  // Of restores that were cut off: takes away what they left, and what could not be taken away yet.
  std::function<void()> restoreCleanupPass;                            // nothing is done
  std::function<std::vector<std::string>()> pendingRestoreCleanups{};  // none
};

}  // namespace quillmark
