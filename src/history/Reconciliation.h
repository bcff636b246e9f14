// Reconciliation: keeps the history in step with the snapshots on disk. The list on disk is the truth, the history a cache
// of what they contain.
// Ownership: borrows what it is made over.
// Threads:   all on the volume's queue, in the epoch; several volumes at once.
// Errors:    the two passes log theirs and throw none; the others throw Error.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "history/IndexRun.h"
#include "wire/Records.h"

namespace quillmark {

class Reconciliation final {
 public:
  Reconciliation(const HistoryServices& services, SnapshotHistoryStore& store, IndexRun& runs)
      : services_(services), store_(store), runs_(runs), strandedReported_(services.dispatch) {}

  // Queues external snapshots that came since the last index.
  void catchUpExternal(const VolumeInfo& volume);
  // Registers own snapshots that the history never heard of, and indexes what is pending.
  void reconcileOwned(const VolumeInfo& volume);

  // Of the history's caches; nothing where there are none.
  void purgeCaches(const VolumeUuid& volume) const;
  void purgeCaches(const VolumeUuid& volume, const std::vector<Xid>& xids) const;

 private:
  using Snapshots = std::vector<SnapshotRecord>;
  void catchUp(const VolumeInfo& volume);
  void reconcile(const VolumeInfo& volume);
  void dropGone(const VolumeInfo& volume, const Snapshots& onDisk);
  // Snapshots that somebody made writable for a while and changed: their indexes go. True when some are to be indexed anew.
  [[nodiscard]] bool requeueChanged(const VolumeInfo& volume);
  [[nodiscard]] std::set<Xid> recorded(const VolumeUuid& volume);
  // Takes out what can't join the chain any more.
  void reportStranded(const VolumeInfo& volume, Xid head, Snapshots& unrecorded);
  void registerPending(const VolumeUuid& volume, const SnapshotRecord& snapshot);

  const HistoryServices& services_;
  SnapshotHistoryStore& store_;
  IndexRun& runs_;
  Guarded<std::set<std::string>> strandedReported_;  // "<volume>:<xid>"
};

}  // namespace quillmark
