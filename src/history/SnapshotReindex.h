// SnapshotReindex: makes one snapshot pending again, where the chain allows it.
// Threads: on the volume's queue, in the epoch.
// Errors:  throws Error, code 20 for what the chain forbids; then nothing has changed.
#pragma once

#include "history/Reconciliation.h"

namespace quillmark {

class SnapshotReindex final {
 public:
  SnapshotReindex(const HistoryServices& services, SnapshotHistoryStore& store, Reconciliation& reconciliation)
      : services_(services), store_(store), reconciliation_(reconciliation) {}

  void prepare(const VolumeInfo& volume, Xid xid);

 private:
  [[nodiscard]] SnapshotRecord onDisk(const VolumeInfo& volume, Xid xid);
  void prepareUnindexed(const VolumeUuid& volume, const SnapshotRecord& snapshot, const std::set<Xid>& ready);
  void prepareSole(const VolumeUuid& volume, const SnapshotRecord& snapshot);
  void prepareHead(const VolumeUuid& volume, const SnapshotRecord& snapshot);

  const HistoryServices& services_;
  SnapshotHistoryStore& store_;
  Reconciliation& reconciliation_;
};

}  // namespace quillmark
