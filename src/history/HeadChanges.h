// HeadChanges: what a snapshot changes against the head of its volume's history.
// Threads: called on the volume's queue, in the epoch.
// Errors:  throws Error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "history/SnapshotHistoryStore.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

struct IndexJob {
  const VolumeInfo& volume;
  const StoredSnapshot& snapshot;
  bool lowPriority = false;
};

class HeadChanges {
 public:
  struct Found {
    HistoryDelta delta;
    std::size_t entries = 0;                 // of the snapshot's tree
    std::uint64_t lastChange = 0;            // of the snapshot (SnapshotCalls.h), as it was before it was looked at
    std::shared_ptr<TreeClaim> memory = {};  // that the delta takes
  };
  virtual ~HeadChanges() = default;
  [[nodiscard]] virtual Found since(Xid head, const IndexJob& job) = 0;
};

}  // namespace quillmark
