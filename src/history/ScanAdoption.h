// ScanAdoption: makes links of the history out of trees that were read for a comparison, where they can be its next ones.
// Ownership: borrows what it is made over.
// Threads:   on the volume's queue, in the epoch.
// Errors:    none; what fails goes to the log, and the answer that the trees were read for stands.
#pragma once

#include <map>
#include <optional>

#include "base/FunctionRef.h"
#include "history/Comparisons.h"
#include "platform/sync.h"

namespace quillmark {

class ScanAdoption final {
 public:
  ScanAdoption(const HistoryServices& services, SnapshotHistoryStore& store, HistoryWork& work, IndexRun& runs)
      : services_(services), store_(store), work_(work), runs_(runs), kept_(services.dispatch) {}

  // Of a comparison between the two.
  struct Offer {
    Xid a, b;
    ScannedTrees scanned;
  };
  // For the next offer(), if any of it can join the chain and nothing of the volume is kept yet: trees are large.
  void keep(const VolumeInfo& volume, Offer offer);
  // Offers what is kept, and indexes what is pending.
  void offer(const VolumeInfo& volume);

 private:
  using Snapshots = std::vector<SnapshotRecord>;
  [[nodiscard]] bool canJoin(const VolumeUuid& volume, const ScannedTrees& scanned);
  void adoptKept(const VolumeInfo& volume);
  void adopt(const VolumeInfo& volume, const Offer& offer);
  // Tells the error that the work throws.
  void tryAdopting(FunctionRef<void()> work);
  // Snapshots that have to be indexed before one of these; registered, if there are any.
  [[nodiscard]] bool registeredBetween(const VolumeInfo& volume, Xid a, Xid b, const ScannedTrees& scanned,
                                       const Snapshots& onDisk);
  void save(const VolumeInfo& volume, const SnapshotRecord& snapshot, const ScannedTree& scan);

  const HistoryServices& services_;
  SnapshotHistoryStore& store_;
  HistoryWork& work_;
  IndexRun& runs_;
  Guarded<std::map<VolumeUuid, Offer>> kept_;
};

}  // namespace quillmark
