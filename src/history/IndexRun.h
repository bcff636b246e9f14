// IndexRun: works through a volume's pending snapshots in ascending order and makes each a link of the history.
// Ownership: borrows what it is made over.
// Threads:   run() on the volume's queue, in the epoch.
// Errors:    throws Error. Whatever fails leaves the history as it was, and the snapshots pending.
#pragma once

#include "history/HeadChanges.h"
#include "history/SnapshotScans.h"
#include "snapshots/SnapshotHistory.h"

namespace quillmark {

class IndexRun final {
 public:
  IndexRun(const HistoryServices& services, SnapshotHistoryStore& store, HistoryWork& work, SnapshotScans& scans,
           HeadChanges& changes, IndexProgress& progress, RepairFailures& failures)
      : services_(services), store_(store), work_(work), scans_(scans), changes_(changes), progress_(progress),
        failures_(failures) {}

  // Keeps the reason of a failure for the health report, unless nobody has to do anything about it.
  void run(const VolumeInfo& volume, Forced forced);
  // The same for those whom nobody asked: failures go to the log.
  void runInBackground(const VolumeInfo& volume, Forced forced);
  // Without keeping anything: what fails is the caller's.
  void indexPending(const VolumeInfo& volume, Forced forced);
  // Not worth telling: the work was told to end, the snapshot is in use, or the volume isn't there any more.
  [[nodiscard]] bool isPassing(const VolumeInfo& volume, const Error& failure);
  // True as well when it can't be read.
  [[nodiscard]] bool mayBePending(const VolumeUuid& volume);
  // At the lowest pending snapshot.
  void recordFailure(const VolumeInfo& volume, const Error& failure);
  void forgetFailure(const VolumeUuid& volume) { failures_.forget(volume); }

 private:
  void indexOnce(const VolumeInfo& volume, Forced forced);
  // After a scan that gave its snapshot away: false when it is time to end.
  [[nodiscard]] bool mayResume(const VolumeInfo& volume);
  // Whether a pending snapshot was deleted since the run listed them: the next attempt forgets it. Not when that is known
  // already: an attempt that couldn't forget it fails for good.
  [[nodiscard]] bool isOfGone(const VolumeInfo& volume, const Error& failure, std::set<Xid>& known);
  [[nodiscard]] std::set<Xid> xidsOnDisk(const VolumeInfo& volume);
  // Without those that are no longer on disk.
  [[nodiscard]] std::vector<StoredSnapshot> pendingOnDisk(const VolumeInfo& volume);
  [[nodiscard]] HistoryVolume volumeRow(const VolumeUuid& volume);
  [[nodiscard]] bool mayGoOn(Forced forced) const { return forced == Forced::yes || work_.hasPower(); }
  void buildBaseline(const IndexJob& job);
  // False when power ran out.
  [[nodiscard]] bool extend(const VolumeInfo& volume, const std::vector<StoredSnapshot>& pending, Forced forced);
  void addDelta(const IndexJob& job, Xid head);
  void dropBelowHead(const VolumeInfo& volume, const StoredSnapshot& snapshot, Xid head);
  void finish(const VolumeUuid& volume);
  [[nodiscard]] std::int64_t millisecondsSince(MonotonicTime began) const;

  const HistoryServices& services_;
  SnapshotHistoryStore& store_;
  HistoryWork& work_;
  SnapshotScans& scans_;
  HeadChanges& changes_;
  IndexProgress& progress_;
  RepairFailures& failures_;
};

}  // namespace quillmark
