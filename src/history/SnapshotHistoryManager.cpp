#include "history/SnapshotHistoryManager.h"

#include <fmt/format.h>

#include "base/HelperLog.h"
#include "base/Text.h"
#include "history/BackgroundWork.h"
#include "history/FullScanChanges.h"
#include "history/HistoryHealth.h"
#include "history/Rebuilds.h"
#include "history/ScanAdoption.h"
#include "history/SnapshotReindex.h"
#include "scheduling/rules/SnapshotNameInfo.h"

namespace quillmark {
namespace {

HistoryServices withCaches(HistoryServices services, HistoryCaches& caches) {
  services.caches = &caches;
  return services;
}

StoredSnapshot storedFormOf(const SnapshotRecord& record) {
  return {.xid = record.xid, .name = record.name, .createdAt = record.createdAt};
}

// How long the helper waits at its end for running scans to give their mounts back.
constexpr std::chrono::seconds lastScans{2};
// A walk that is told to end does so within a second, and then unmounts.
constexpr std::chrono::seconds patienceOfClaims{5};
// A client opens the file of its comparison as soon as it is told of it.
constexpr std::chrono::seconds patienceOfReaders{10};

}  // namespace

class SnapshotHistoryManager::Implementation final : public std::enable_shared_from_this<Implementation> {
 public:
  explicit Implementation(HistoryServices given)
      : comparisonCache(given.dispatch, given.caches), services(withCaches(std::move(given), comparisonCache)),
        store(services.dispatch, services.posix, services.log, services.paths), queues(services.dispatch),
        work(services, providers), mounts(services), progress(services.dispatch, queues.progressPush, providers),
        failures(services.dispatch), scans(services, providers, queues, work, mounts, progress, failures),
        changes(scans, store), runs(services, store, work, scans, changes, progress, failures),
        comparisons(services, store, work, scans, runs, progress, comparisonCache),
        adoption(services, store, work, runs), reconciliation(services, store, runs),
        reindex(services, store, reconciliation),
        rebuilds(services, store, queues, work, runs, reconciliation, progress),
        background(services, providers, store, queues, work, runs, mounts, reconciliation),
        bootstraps(services.dispatch) {
    compactDeferred();
  }

  // The marks wait for their volume's next pass; the history can be used all the same.
  void compactDeferred() {
    try {
      store.compactAllDeferred();
    } catch (const std::exception& failure) {
      services.log.error("history: what was left unmerged could not be merged: " + asError(failure).description());
    }
  }

  // Work on the volume's queue, in the epoch, unless all this is gone by then.
  void onVolumeLater(const VolumeInfo& volume, std::function<void(Implementation&)> step) {
    queues.queue(volume.key())->async([weak = weak_from_this(), key = volume.key(), step = std::move(step)] {
      if (const auto self = weak.lock()) self->queues.onVolume(key, [&] { step(*self); });
    });
  }
  void compactAfterDeleting(const VolumeInfo& volume, const std::vector<Xid>& xids);
  void reindexNow(const VolumeInfo& volume);
  void finishReindexAll(bool complete);
  void finishBootstrap(bool complete, std::size_t volumes);

  ComparisonCache comparisonCache;
  const HistoryServices services;
  HistoryProviders providers;  // set once, before the first call
  SnapshotHistoryStore store;
  HistoryQueues queues;
  HistoryWork work;
  IndexMounts mounts;
  IndexProgress progress;
  RepairFailures failures;
  SnapshotScans scans;
  FullScanChanges changes;
  IndexRun runs;
  Comparisons comparisons;
  ScanAdoption adoption;
  Reconciliation reconciliation;
  SnapshotReindex reindex;
  Rebuilds rebuilds;
  BackgroundWork background;
  Group bootstraps;  // that were asked for and haven't ended
};

std::shared_ptr<SnapshotHistoryManager> SnapshotHistoryManager::make(HistoryServices services) {
  return std::shared_ptr<SnapshotHistoryManager>(
      new SnapshotHistoryManager(std::make_shared<Implementation>(std::move(services))));
}

SnapshotHistoryManager::SnapshotHistoryManager(std::shared_ptr<Implementation> implementation)
    : self_(std::move(implementation)) {}
SnapshotHistoryManager::~SnapshotHistoryManager() = default;

void SnapshotHistoryManager::install(HistoryProviders providers) { self_->providers = std::move(providers); }

SnapshotHistoryStore& SnapshotHistoryManager::store() { return self_->store; }

std::set<Xid> SnapshotHistoryManager::indexedXIDs(const VolumeUuid& volume) { return self_->store.readyXIDs(volume); }

void SnapshotHistoryManager::snapshotCreated(const VolumeInfo& volume, const SnapshotRecord& snapshot, Forced forced) {
  if (SnapshotNameInfo::isSystemManaged(snapshot.name)) return;
  self_->queues.inEpoch(
      [&] { self_->store.recordPending(volume.key(), snapshot.xid, snapshot.name, snapshot.createdAt); });
  self_->onVolumeLater(volume, [volume, forced](Implementation& self) {
    if (self.work.isStopped()) return;
    self.reconciliation.catchUpExternal(volume);
    self.runs.runInBackground(volume, forced);
  });
}

void SnapshotHistoryManager::snapshotsDeleted(const VolumeInfo& volume, const std::vector<Xid>& xids) {
  if (xids.empty()) return;
  self_->onVolumeLater(volume, [volume, xids](Implementation& self) { self.compactAfterDeleting(volume, xids); });
}

void SnapshotHistoryManager::Implementation::compactAfterDeleting(const VolumeInfo& volume,
                                                                  const std::vector<Xid>& xids) {
  reconciliation.purgeCaches(volume.key(), xids);
  try {
    store.deleteSnapshots(volume.key(), xids);
    // What couldn't be indexed may have been among them.
    if (store.pendingSnapshots(volume.key()).empty()) failures.forget(volume.key());
  } catch (const std::exception& exception) {
    const std::string failure = asError(exception).description();
    services.log.error(xids.size() == 1
                           ? fmt::format("history compaction after deleting xid={}: {}", xids.front().value, failure)
                           : fmt::format("history compaction after bulk delete of {}: {}", xids.size(), failure));
  }
}

std::shared_ptr<const void> SnapshotHistoryManager::claim(const VolumeUuid& volume, const std::string& snapshot) {
  const SnapshotClaims::Key key{volume, snapshot};
  self_->scans.claims().claim(key, patienceOfClaims);
  return {nullptr, [self = self_, key](const void*) { self->scans.claims().release(key); }};
}

void SnapshotHistoryManager::forgetComparisonsSoon(const VolumeUuid& volume, const std::set<Xid>& xids) {
  self_->queues.timer->asyncAfter(patienceOfReaders, [weak = self_->weak_from_this(), volume, xids] {
    if (const auto self = weak.lock()) self->reconciliation.purgeCaches(volume, {xids.begin(), xids.end()});
  });
}

void SnapshotHistoryManager::reconcile(const VolumeUuid&) { self_->background.requestReconcile(self_); }

void SnapshotHistoryManager::reindexSnapshot(const VolumeInfo& volume, Xid xid) {
  self_->queues.onVolume(volume.key(), [&] { self_->reindex.prepare(volume, xid); });
  self_->onVolumeLater(volume, [volume](Implementation& self) { self.reindexNow(volume); });
}

void SnapshotHistoryManager::Implementation::reindexNow(const VolumeInfo& volume) {
  if (work.isStopped()) return;
  try {
    runs.run(volume, Forced::yes);
  } catch (const std::exception& exception) {
    const Error failure = asError(exception);
    if (HistoryWork::isCancellation(failure)) return;
    services.log.error("snapshot (re)index failed: " + failure.description());
  }
}

void SnapshotHistoryManager::reindexVolume(const VolumeInfo& volume) {
  self_->queues.onVolume(volume.key(), [&] {
    self_->rebuilds.startOver(volume, true);
    self_->runs.run(volume, Forced::yes);
    self_->progress.done(volume.key());
  });
}

void SnapshotHistoryManager::reindexAllVolumes() {
  EligibleVolumes found = EligibleVolumes::find(self_->services, self_->work);
  if (found.volumes.empty() && !found.unresolved.empty()) {
    throw historyError(
        fmt::format("No volume could be resolved ({}); history was not modified.", join(found.unresolved, ", ")));
  }
  if (found.volumes.empty()) {
    throw historyError("Volume inventory returned no mounted APFS volumes; history was not modified.");
  }
  // What is being read goes to waste anyway, and behind the barrier nobody could register a snapshot.
  std::optional<HistoryWork::Interruption> interruption(self_->work);
  self_->queues.alone([&] {
    interruption.reset();
    self_->store.dropAll();
    if (self_->services.caches) self_->services.caches->purgeAll();
  });
  for (const VolumeInfo& volume : found.volumes) self_->reconciliation.purgeCaches(volume.key());
  for (const std::string& failure : found.unresolved) {
    self_->services.log.error("re-index could not resolve " + failure);
  }
  const bool allResolved = found.unresolved.empty();
  self_->rebuilds.start(
      std::move(found.volumes), true,
      [self = self_.get(), allResolved](bool complete) { self->finishReindexAll(complete && allResolved); }, self_);
}

void SnapshotHistoryManager::Implementation::finishReindexAll(bool complete) {
  if (!complete) return;
  try {
    store.markBootstrapComplete();
  } catch (const std::exception& failure) {
    services.log.error("full re-index completion could not be persisted: " + asError(failure).description());
  }
}

bool SnapshotHistoryManager::needsExistingSnapshotBootstrap() const {
  return self_->store.needsExistingSnapshotBootstrap();
}

void SnapshotHistoryManager::bootstrapLater() {
  self_->bootstraps.enter();
  const auto later = self_->services.dispatch.global(QualityOfService::utility);
  later->async([weak = weak_from_this(), implementation = std::weak_ptr(self_)] {
    const auto self = implementation.lock();
    if (!self) return;
    if (const auto manager = weak.lock(); manager && !self->work.isStopped()) manager->bootstrap();
    self->bootstraps.leave();
  });
}

void SnapshotHistoryManager::bootstrap() {
  EligibleVolumes found = EligibleVolumes::find(self_->services, self_->work);
  for (const std::string& failure : found.unresolved) {
    self_->services.log.warn("history bootstrap could not resolve " + failure);
  }
  if (found.volumes.empty()) {
    self_->services.log.warn("history bootstrap found no eligible mounted APFS volumes");
    return;
  }
  const std::size_t count = found.volumes.size();
  self_->rebuilds.start(
      std::move(found.volumes), false,
      [self = self_.get(), count](bool complete) { self->finishBootstrap(complete, count); }, self_);
}

void SnapshotHistoryManager::Implementation::finishBootstrap(bool complete, std::size_t volumes) {
  if (!complete) {
    services.log.error("history bootstrap was incomplete; it will retry after the next helper launch");
    return;
  }
  try {
    store.markBootstrapComplete();
    services.log.info(fmt::format("history bootstrap completed for {} volume(s)", volumes));
  } catch (const std::exception& failure) {
    services.log.error("history bootstrap completion could not be persisted: " + asError(failure).description());
  }
}

std::shared_ptr<const Comparison> SnapshotHistoryManager::compare(const VolumeInfo& volume, const SnapshotRecord& a,
                                                                  const SnapshotRecord& b, bool includeTree,
                                                                  bool fullScan) {
  const StoredSnapshot storedA = storedFormOf(a), storedB = storedFormOf(b);
  Comparisons::Answer answer;
  self_->queues.onVolume(volume.key(), [&] {
    answer = self_->comparisons.compare(
        {.volume = volume, .a = storedA, .b = storedB, .includeTree = includeTree, .fullScan = fullScan});
    if (answer.scanned.empty()) return;
    // Behind all that waits for the volume, which may be comparisons of that kind.
    self_->adoption.keep(volume, {.a = a.xid, .b = b.xid, .scanned = std::move(answer.scanned)});
    self_->onVolumeLater(volume, [volume](Implementation& self) { self.adoption.offer(volume); });
  });
  return answer.comparison;
}

Comparison SnapshotHistoryManager::compareSubtree(const VolumeUuid& volume, const std::string& path, Xid a, Xid b) {
  return self_->comparisons.subtree(volume, path, a, b);
}

std::vector<ActiveIndexProgress> SnapshotHistoryManager::activeIndexProgress() { return self_->progress.active(); }

HelperSubsystemHealth SnapshotHistoryManager::health() {
  return historyHealth(self_->services, self_->providers, self_->store, self_->failures);
}

void SnapshotHistoryManager::forgetRepairFailure(const VolumeUuid& volume) { self_->failures.forget(volume); }

void SnapshotHistoryManager::startBackgroundWork() { self_->background.start(self_); }

void SnapshotHistoryManager::waitForWork() {
  self_->bootstraps.wait();
  self_->queues.drain();
}

void SnapshotHistoryManager::stopBackgroundWork() {
  self_->work.stop();
  self_->background.stop(self_);
  if (!self_->scans.waitUntilNoneRuns(lastScans)) {
    self_->services.log.warn("history: a scan did not end in time; its mount is taken away at the next start");
  }
}

}  // namespace quillmark
