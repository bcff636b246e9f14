// Rebuilds: throws the history of volumes away and makes it anew from their snapshots, one volume after the other. A newer
// request takes over from the one under way before its next volume.
// Ownership: borrows what it is made over.
// Threads:   thread-safe; passes run on the rebuild queue, each volume's step on the volume's queue in the epoch.
// Errors:    a volume's failure is kept for the health report, and the other volumes go on.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "history/HistoryQueues.h"
#include "history/Reconciliation.h"

namespace quillmark {

class Rebuilds final {
 public:
  // True when all volumes were worked through without a failure that counts.
  using Completion = std::function<void(bool complete)>;

  Rebuilds(const HistoryServices& services, SnapshotHistoryStore& store, HistoryQueues& queues, HistoryWork& work,
           IndexRun& runs, Reconciliation& reconciliation, IndexProgress& progress)
      : services_(services), store_(store), queues_(queues), work_(work), runs_(runs), reconciliation_(reconciliation),
        progress_(progress), generation_(services.dispatch, 0) {}

  // The pass begins only while the owner, who holds all this, lives; and holds him until it ends.
  void start(std::vector<VolumeInfo> volumes, bool includeExternal, Completion completion,
             std::weak_ptr<const void> owner);
  // On the volume's queue, in the epoch: throws the volume's history away and registers what is to be taken in, own
  // snapshots, or all but the operating system's. Throws; nothing has changed when the snapshots can't be listed.
  void startOver(const VolumeInfo& volume, bool includeExternal);

 private:
  using Generation = std::uint64_t;
  struct Pass {
    Generation generation;
    bool includeExternal;
    bool isComplete = true;
  };
  void run(const std::vector<VolumeInfo>& volumes, Pass pass, const Completion& completion);
  [[nodiscard]] bool isNewest(Generation generation);
  void rebuild(const VolumeInfo& volume, bool hadHistory, Pass& pass);
  void note(const VolumeInfo& volume, bool hadHistory, const Error& failure, Pass& pass);
  [[nodiscard]] bool hasHistory(const VolumeUuid& volume);

  void registerEligible(const VolumeInfo& volume, std::vector<SnapshotRecord> onDisk, bool includeExternal);

  const HistoryServices& services_;
  SnapshotHistoryStore& store_;
  HistoryQueues& queues_;
  HistoryWork& work_;
  IndexRun& runs_;
  Reconciliation& reconciliation_;
  IndexProgress& progress_;
  Guarded<Generation> generation_;
};

}  // namespace quillmark
