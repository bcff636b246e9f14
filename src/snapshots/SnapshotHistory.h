// SnapshotHistory: what the change history has to be told of, and asked about, by those who handle snapshots.
// Threads: thread-safe; nothing here waits for a scan.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/Uuid.h"
#include "base/Xid.h"
#include "snapshots/VolumeInfo.h"
#include "wire/Records.h"

namespace quillmark {

// A forced index run is held back neither by battery nor by the mode of indexing.
enum class Forced { no, yes };

class SnapshotHistory {
 public:
  virtual ~SnapshotHistory() = default;
  [[nodiscard]] virtual std::set<Xid> indexedXIDs(const VolumeUuid& volume) = 0;
  // Registers a new snapshot for indexing. Throws Error.
  virtual void snapshotCreated(const VolumeInfo& volume, const SnapshotRecord& snapshot, Forced forced) = 0;
  void snapshotCreated(const VolumeInfo& volume, const SnapshotRecord& snapshot) {
    snapshotCreated(volume, snapshot, Forced::no);
  }
  // Hands deleted snapshots over for compaction, asynchronously. Never fails.
  virtual void snapshotsDeleted(const VolumeInfo& volume, const std::vector<Xid>& xids) = 0;
  // For whoever needs the snapshot for himself, to delete, mount or unmount it: it isn't indexed as long as the answer
  // lives. Waits a few seconds for a scan to end, which begins anew afterwards. Never fails.
  [[nodiscard]] virtual std::shared_ptr<const void> claim(const VolumeUuid&, const std::string&) { return nullptr; }
  // The volume's snapshots may have changed behind our back. Never fails.
  virtual void reconcile(const VolumeUuid& volume) = 0;
};

}  // namespace quillmark
