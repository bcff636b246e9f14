// FullScanChanges: reads the snapshot's whole tree and compares it with the head's, as the store has it.
#pragma once

#include "history/HeadChanges.h"
#include "history/SnapshotScans.h"

namespace quillmark {

class FullScanChanges final : public HeadChanges {
 public:
  FullScanChanges(SnapshotScans& scans, SnapshotHistoryStore& store) : scans_(scans), store_(store) {}

  Found since(Xid, const IndexJob& job) override {
    std::uint64_t lastChange = 0;
    const SnapshotIndex::ShardedEntries tree = scans_.scan({.volume = job.volume,
                                                            .snapshot = job.snapshot,
                                                            .label = "Full-scan index",
                                                            .lowPriority = job.lowPriority,
                                                            .yields = true,
                                                            .lastChange = &lastChange});
    return {store_.computeDelta(job.volume.key(), tree), tree.count(), lastChange, tree.claim()};
  }

 private:
  SnapshotScans& scans_;
  SnapshotHistoryStore& store_;
};

}  // namespace quillmark
