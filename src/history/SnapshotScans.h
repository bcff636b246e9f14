// SnapshotScans: reads the whole tree of one snapshot, from mounting to audit. One at a time in the process.
// Ownership: borrows what it is made over.
// Threads:   thread-safe; a caller waits until the scans before his are through. Must not be called with the store's lock
//            held.
// Errors:    throws Error; claimed (HistoryWork) where somebody needs the snapshot for himself. A scan that has to end
//            because its file system's people unmounted it, or because the helper leaves, throws a cancellation
//            (HistoryWork) and leaves no trace.
#pragma once

#include <cstdint>
#include <string>

#include "base/Xid.h"
#include "history/HistoryWork.h"
#include "history/IndexMounts.h"
#include "history/IndexProgress.h"
#include "history/RepairFailures.h"
#include "history/SnapshotClaims.h"
#include "history/SnapshotScanner.h"

namespace quillmark {

class HistoryQueues;

struct SnapshotScan {
  const VolumeInfo& volume;
  const StoredSnapshot& snapshot;
  std::string label;  // in the audit trail
  bool ignoreExclusions = false;
  bool lowPriority = false;
  bool yields = false;  // to whoever claims the snapshot; else claims don't touch it
  // Gets the number of the last change (SnapshotCalls.h) as it was before the tree was read; may be null.
  std::uint64_t* lastChange = nullptr;
};

class SnapshotScans final {
 public:
  SnapshotScans(const HistoryServices& services, const HistoryProviders& providers, HistoryQueues& queues,
                HistoryWork& work, IndexMounts& mounts, IndexProgress& progress, RepairFailures& failures);

  [[nodiscard]] SnapshotIndex::ShardedEntries scan(const SnapshotScan& scan);
  [[nodiscard]] SnapshotClaims& claims() { return claims_; }
  // Until no scan holds a mount; false when the time passed first.
  bool waitUntilNoneRuns(std::chrono::nanoseconds atMost) { return running_.waitFor(atMost); }

 private:
  [[nodiscard]] SnapshotIndex::ShardedEntries scanMounted(const SnapshotScan& scan,
                                                          const SnapshotClaims::Reading* reading, MonotonicTime began);
  [[nodiscard]] SnapshotIndex::ShardedEntries walk(const SnapshotScan& scan, const IndexMounts::Mounted& mounted,
                                                   std::optional<ExclusionRules> rules,
                                                   const std::function<bool()>& isCancelled);
  [[nodiscard]] std::uint64_t lastChangeAt(const std::string& path);

  const HistoryServices& services_;
  const HistoryProviders& providers_;
  HistoryQueues& queues_;
  HistoryWork& work_;
  IndexMounts& mounts_;
  IndexProgress& progress_;
  RepairFailures& failures_;
  SnapshotScanner scanner_;
  SnapshotClaims claims_;
  Group running_;
  Mutex scanning_;  // held over mounting, walking and unmounting
};

}  // namespace quillmark
