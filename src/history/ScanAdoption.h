// ScanAdoption: makes links of the history out of trees that were read for a comparison, where they can be its next ones.
// Ownership: borrows what it is made over.
// Threads:   on the volume's queue, in the epoch.
// Errors:    none; what fails goes to the log, and the answer that the trees were read for stands.
#pragma once

#include "history/Comparisons.h"

namespace quillmark {

class ScanAdoption final {
 public:
  ScanAdoption(const HistoryServices& services, SnapshotHistoryStore& store, HistoryWork& work, IndexRun& runs)
      : services_(services), store_(store), work_(work), runs_(runs) {}

  // Of a comparison between the two.
  void offer(const VolumeInfo& volume, Xid a, Xid b, const ScannedTrees& scanned);

 private:
  using Snapshots = std::vector<SnapshotRecord>;
  void adopt(const VolumeInfo& volume, Xid a, Xid b, const ScannedTrees& scanned);
  // Snapshots that have to be indexed before one of these; registered, if there are any.
  [[nodiscard]] bool registeredBetween(const VolumeInfo& volume, Xid a, Xid b, const ScannedTrees& scanned,
                                       const Snapshots& onDisk);
  void save(const VolumeInfo& volume, const SnapshotRecord& snapshot, const ScannedTree& scan);

  const HistoryServices& services_;
  SnapshotHistoryStore& store_;
  HistoryWork& work_;
  IndexRun& runs_;
};

}  // namespace quillmark
