// SnapshotHistoryManager: turns the existence of a snapshot into a committed link of the history, and keeps the history in
// step with the snapshots on disk. All work on a volume runs on its serial queue, inside the epoch.
// Ownership: owns the store; borrows the rest, which outlives it. Make it with make(): queued work holds it weakly.
// Threads:   thread-safe. Lock order: volume's queue, epoch, scan lock, the store's lock; all others are leaves, and no
//            callback runs under them.
// Errors:    throws Error; texts for the user have code 20 of the domain Quillmark.SnapshotHistory.
#pragma once

#include <memory>
#include <set>
#include <vector>

#include "history/Comparison.h"
#include "history/HistoryCaches.h"
#include "history/HistoryProviders.h"
#include "history/HistoryServices.h"
#include "history/SnapshotHistoryStore.h"
#include "snapshots/SnapshotHistory.h"
#include "wire/Records.h"

namespace quillmark {

class SnapshotHistoryManager final : public SnapshotHistory,
                                     public std::enable_shared_from_this<SnapshotHistoryManager> {
 public:
  // Opens the store and merges what a crash left unmerged. Throws when the store can't be had.
  [[nodiscard]] static std::shared_ptr<SnapshotHistoryManager> make(HistoryServices services);
  ~SnapshotHistoryManager() override;

  // Once, before anything else is called.
  void install(HistoryProviders providers);

  // SnapshotHistory
  using SnapshotHistory::snapshotCreated;
  [[nodiscard]] std::set<Xid> indexedXIDs(const VolumeUuid& volume) override;
  // On return the snapshot is registered; nothing is lost by a crash from there on.
  void snapshotCreated(const VolumeInfo& volume, const SnapshotRecord& snapshot, Forced forced) override;
  void snapshotsDeleted(const VolumeInfo& volume, const std::vector<Xid>& xids) override;
  [[nodiscard]] std::shared_ptr<const void> claim(const VolumeUuid& volume, const std::string& snapshot) override;
  // A burst of calls costs one pass over all volumes.
  void reconcile(const VolumeUuid& volume) override;

  // Waits for the volume's queue.
  void reindexSnapshot(const VolumeInfo& volume, Xid xid);
  void reindexVolume(const VolumeInfo& volume);
  // Returns once the rebuild is under way.
  void reindexAllVolumes();
  // Registers and indexes what a fresh or discarded database knows nothing of. Blocks while it resolves the volumes.
  void bootstrap();
  // The same, soon and on another thread.
  void bootstrapLater();
  [[nodiscard]] bool needsExistingSnapshotBootstrap() const;

  // What changed between two snapshots. Indexes or reads them when it has to, and waits for the volume's queue.
  [[nodiscard]] std::shared_ptr<const Comparison> compare(const VolumeInfo& volume, const SnapshotRecord& a,
                                                          const SnapshotRecord& b, bool includeTree, bool fullScan);
  // Of snapshots that were deleted while they were compared: the file that the client was told of goes in a while.
  void forgetComparisonsSoon(const VolumeUuid& volume, const std::set<Xid>& xids);
  // Below a path, from the history alone: nothing is told of snapshots that aren't in it.
  [[nodiscard]] Comparison compareSubtree(const VolumeUuid& volume, const std::string& path, Xid a, Xid b);

  [[nodiscard]] std::vector<ActiveIndexProgress> activeIndexProgress();
  [[nodiscard]] HelperSubsystemHealth health();
  // The volume is no longer the history's concern: its failure isn't told any more.
  void forgetRepairFailure(const VolumeUuid& volume);
  void startBackgroundWork();
  // Timers end, running scans are told to end, nothing new begins. Waits until the scans have given their mounts back,
  // two seconds at most.
  void stopBackgroundWork();

  // For one who takes the services away afterwards: returns once nothing of what was begun runs any more. Background work
  // must have been stopped.
  void waitForWork();

  [[nodiscard]] SnapshotHistoryStore& store();

 private:
  class Implementation;
  explicit SnapshotHistoryManager(std::shared_ptr<Implementation> implementation);
  const std::shared_ptr<Implementation> self_;
};

}  // namespace quillmark
