// SnapshotHistory: what the change history has to be told of, and asked about, by those who handle snapshots.
// Threads: thread-safe; nothing here waits for a scan.
#pragma once

#include <set>
#include <vector>

#include "base/Uuid.h"
#include "base/Xid.h"
#include "snapshots/VolumeInfo.h"
#include "wire/Records.h"

namespace quillmark {

class SnapshotHistory {
 public:
  virtual ~SnapshotHistory() = default;
  [[nodiscard]] virtual std::set<Xid> indexedXIDs(const VolumeUuid& volume) = 0;
  // Registers a new snapshot for indexing. Throws Error.
  virtual void snapshotCreated(const VolumeInfo& volume, const SnapshotRecord& snapshot) = 0;
  // Hands deleted snapshots over for compaction, asynchronously. Never fails.
  virtual void snapshotsDeleted(const VolumeInfo& volume, const std::vector<Xid>& xids) = 0;
  // The volume's snapshots may have changed behind our back. Never fails.
  virtual void reconcile(const VolumeUuid& volume) = 0;
};

}  // namespace quillmark
