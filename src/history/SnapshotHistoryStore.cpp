#include "history/SnapshotHistoryStore.h"

#include <atomic>
#include <cerrno>
#include <map>
#include <utility>

#include "base/HelperLog.h"
#include "history/HistoryCommits.h"
#include "history/HistoryCompaction.h"
#include "history/HistoryReadPool.h"
#include "history/HistoryRows.h"
#include "history/HistorySchema.h"
#include "history/ReadyCache.h"
#include "platform/dispatch.h"

namespace quillmark {
namespace {

constexpr long textForUser = 20;
constexpr const char* fileName = "history.sqlite3";
// Past so many rows a commit's log is large enough to slow down what comes after it.
constexpr std::size_t bigDelta = 10'000;
// Past so many, what it would leave in the log where it fails is worth a look.
constexpr std::size_t fairDelta = 1'000;

// Inside the caller's transaction.
void insertPending(HistoryConnection& connection, const VolumeUuid& volume, Xid xid, const std::string& name,
                   Date createdAt) {
  connection
      .prepare(
          "INSERT INTO snapshots(volume_uuid,xid,name,created_at,state) VALUES(?,?,?,?,'pending')"
          " ON CONFLICT(volume_uuid,xid) DO UPDATE SET name=excluded.name,created_at=excluded.created_at")
      .runWith(volume, xid, std::string_view(name), createdAt.secondsSince1970());
}

// The same, and the volume's row.
void recordPendingIn(HistoryConnection& connection, const VolumeUuid& volume, Xid xid, const std::string& name,
                     Date createdAt) {
  connection.prepare("INSERT OR IGNORE INTO volumes(uuid,state) VALUES(?,?)")
      .runWith(volume, historyStateText(HistoryVolumeState::baselinePending));
  insertPending(connection, volume, xid, name, createdAt);
}

}  // namespace

Error historyError(std::string text) { return Error(std::string(snapshotHistoryDomain), textForUser, std::move(text)); }

Error historyCancelled() { return Error(std::string(posixErrorDomain), ECANCELED, errnoText(ECANCELED)); }

// Lets go of a lock that was taken before.
class SCOPED_CAPABILITY HeldLock final {
 public:
  explicit HeldLock(Mutex& mutex) REQUIRES(mutex) : mutex_(mutex) {}
  ~HeldLock() RELEASE() { mutex_.unlock(); }
  HeldLock(const HeldLock&) = delete;
  HeldLock& operator=(const HeldLock&) = delete;

 private:
  Mutex& mutex_;
};

class SnapshotHistoryStore::Implementation final {
 public:
  Implementation(Dispatch& dispatch, Posix& posix, HelperLog& log, const std::string& path)
      : Implementation(dispatch, log, openHistory(posix, log, path)) {
    secureHistoryFiles(posix, log, path);
    readers_.open(path);
  }

  [[nodiscard]] bool didReset() const { return didReset_; }
  [[nodiscard]] bool needsBootstrap() const { return needsBootstrap_; }

  // Runs the work on the writing connection; nobody else uses it meanwhile.
  void write(FunctionRef<void(HistoryConnection&)> work) EXCLUDES(lock_) {
    MutexLock lock(lock_);
    try {
      work(*db_);
    } catch (const std::exception&) {
      if (db_->isDamaged()) discardAtNextOpening(*db_);
      // What a failed commit wrote to the log, on a full disk above all, must not stay there.
      db_->tryEmptyLog();
      throw;
    }
  }

  // Runs the work on a read connection, outside a transaction of ours.
  template <class Result>
  Result read(FunctionRef<Result(HistoryConnection&)> work) EXCLUDES(lock_) {
    if (const HistoryReadPool::Loan loan = readers_.take()) {
      const DamageWatch watch(*this, *loan);
      return work(*loan);
    }
    MutexLock lock(lock_);
    return work(*db_);
  }

  void consistentRead(const std::function<bool()>& isCancelled, FunctionRef<void(HistoryConnection&)> body)
      EXCLUDES(lock_) {
    if (isCancelled && isCancelled()) throw historyCancelled();
    const HistoryReadPool::Loan loan = readers_.take();
    if (!loan) return write(body);
    const DamageWatch watch(*this, *loan);
    (*loan).prepare("BEGIN DEFERRED").run("begin consistent history read");
    {
      const HistoryCancellation cancellation(*loan, isCancelled);
      body(*loan);
    }
    (*loan).prepare("COMMIT").run("commit consistent history read");
  }

  [[nodiscard]] std::set<Xid> readyXIDs(const VolumeUuid& volume) EXCLUDES(lock_) {
    const std::uint64_t version = ready_.version();
    const auto readFrom = [&](HistoryConnection& connection) {
      std::set<Xid> xids = readReadyXids(connection, volume);
      ready_.replaceIfStill(version, volume, xids);
      return xids;
    };
    try {
      if (const HistoryReadPool::Loan loan = readers_.tryTake()) return readFrom(*loan);
      if (lock_.tryLock()) {
        const HeldLock held(lock_);
        return readFrom(*db_);
      }
    } catch (const Error& error) {
      log_.warn("history: reading the ready snapshots of " + volume.text() + " failed: " + error.description());
    }
    return ready_.of(volume);
  }

  void refreshReady(HistoryConnection& connection, const VolumeUuid& volume) {
    ready_.replace(volume, readReadyXids(connection, volume));
  }

  // Merges what is marked, tests the chain, and shows what is left to readers.
  void compact(HistoryConnection& connection, const VolumeUuid& volume) {
    compactHistoryVolume(connection, log_, volume);
    refreshReady(connection, volume);
  }

  // All of it or nothing: a chain that steps back has to find its snapshots in the queue. True when some are there again.
  bool requeue(HistoryConnection& connection, const VolumeUuid& volume, const std::vector<StoredSnapshot>& snapshots) {
    std::vector<Xid> xids;
    for (const StoredSnapshot& snapshot : snapshots) xids.push_back(snapshot.xid);
    HistoryTransaction transaction(connection);
    withdrawFromHistory(connection, log_, volume, xids);
    const std::optional<HistoryVolume> row = readVolumeState(connection, volume);
    bool isAny = false;
    for (const StoredSnapshot& snapshot : snapshots) {
      if (row && row->head >= snapshot.xid) continue;
      recordPendingIn(connection, volume, snapshot.xid, snapshot.name, snapshot.createdAt);
      isAny = true;
    }
    transaction.commit();
    refreshReady(connection, volume);
    maintain(connection);
    return isAny;
  }

  // Its failure takes nothing back of what was done before it.
  void maintain(HistoryConnection& connection) {
    try {
      for (const char* step : {"PRAGMA incremental_vacuum", "PRAGMA wal_checkpoint(TRUNCATE)", "PRAGMA optimize"}) {
        connection.execute(step);
      }
    } catch (const Error& error) {
      log_.warn("history: maintenance failed: " + error.description());
      if (connection.isDamaged()) discardAtNextOpening(connection);
    }
  }

  void bootstrapped() { needsBootstrap_ = false; }
  [[nodiscard]] bool isDamaged() const { return damaged_; }

  Dispatch& dispatch() { return dispatch_; }
  ReadyCache& ready() { return ready_; }

 private:
  // Of a read that ends.
  class DamageWatch final {
   public:
    DamageWatch(Implementation& owner, const HistoryConnection& connection) : owner_(owner), connection_(connection) {}
    ~DamageWatch() {
      if (!connection_.isDamaged() || owner_.damaged_) return;
      MutexLock lock(owner_.lock_);
      owner_.discardAtNextOpening(*owner_.db_);
    }
    DamageWatch(const DamageWatch&) = delete;
    DamageWatch& operator=(const DamageWatch&) = delete;

   private:
    Implementation& owner_;
    const HistoryConnection& connection_;
  };

  // All of it can be made again from the snapshots; nothing good would come of going on with it.
  void discardAtNextOpening(HistoryConnection& connection) noexcept {
    if (damaged_.exchange(true)) return;
    log_.error("history: the database is damaged; it is made anew from the snapshots at the next start");
    connection.tryDisown();
  }

  Implementation(Dispatch& dispatch, HelperLog& log, OpenedHistory opened)
      : dispatch_(dispatch), log_(log), didReset_(opened.didReset), ready_(dispatch),
        needsBootstrap_(opened.needsBootstrap), lock_(dispatch), db_(std::move(opened.connection)),
        readers_(dispatch, log) {
    ready_.load(*db_);
  }

  Dispatch& dispatch_;
  HelperLog& log_;
  const bool didReset_;
  ReadyCache ready_;
  std::atomic<bool> needsBootstrap_;
  std::atomic<bool> damaged_{false};

  // Held over SQL; before the cache's lock, never after it.
  Mutex lock_;
  const std::unique_ptr<HistoryConnection> db_ PT_GUARDED_BY(lock_);

  HistoryReadPool readers_;
};

SnapshotHistoryStore::SnapshotHistoryStore(Dispatch& dispatch, Posix& posix, HelperLog& log, const HostPaths& paths)
    : self_(std::make_unique<Implementation>(dispatch, posix, log, paths.state(fileName))) {}
SnapshotHistoryStore::~SnapshotHistoryStore() = default;

bool SnapshotHistoryStore::didResetForSchemaUpgrade() const { return self_->didReset(); }
bool SnapshotHistoryStore::needsExistingSnapshotBootstrap() const { return self_->needsBootstrap(); }
bool SnapshotHistoryStore::isDamaged() const { return self_->isDamaged(); }

void SnapshotHistoryStore::recordPending(const VolumeUuid& volume, Xid xid, const std::string& name, Date createdAt) {
  self_->write([&](HistoryConnection& db) {
    HistoryTransaction transaction(db);
    recordPendingIn(db, volume, xid, name, createdAt);
    transaction.commit();
  });
}

void SnapshotHistoryStore::registerPending(const VolumeUuid& volume, Xid xid, const std::string& name, Date createdAt) {
  self_->write([&](HistoryConnection& db) {
    HistoryTransaction transaction(db);
    insertPending(db, volume, xid, name, createdAt);
    transaction.commit();
  });
}

void SnapshotHistoryStore::setVolumeState(const VolumeUuid& volume, HistoryVolumeState state) {
  self_->write([&](HistoryConnection& db) {
    db.prepare("INSERT INTO volumes(uuid,state) VALUES(?,?) ON CONFLICT(uuid) DO UPDATE SET state=excluded.state")
        .runWith(volume, historyStateText(state));
  });
}

void SnapshotHistoryStore::commitBaseline(const VolumeUuid& volume, const StoredSnapshot& snapshot,
                                          const SnapshotIndex::ShardedEntries& entries) {
  self_->write([&](HistoryConnection& db) {
    // On a full disk a log that holds anything older can't be emptied after a failure.
    db.tryEmptyLog();
    const HistoryGrowingLog growing(db);
    commitHistoryBaseline(db, volume, snapshot.xid, entries);
    self_->ready().add(volume, snapshot.xid);
  });
}

void SnapshotHistoryStore::emptyLog() {
  self_->write([](HistoryConnection& db) {
    if (db.hasLongLog()) db.tryEmptyLog();
  });
}

HistoryDelta SnapshotHistoryStore::computeDelta(const VolumeUuid& volume, const SnapshotIndex::ShardedEntries& tree) {
  HistoryDelta delta;
  consistentRead({}, [&](HistoryConnection& db) { delta = computeHistoryDelta(db, volume, tree); });
  return delta;
}

void SnapshotHistoryStore::commitDelta(const VolumeUuid& volume, Xid expectedHead, const StoredSnapshot& snapshot,
                                       const HistoryDelta& delta) {
  self_->write([&](HistoryConnection& db) {
    if (delta.size() >= fairDelta) db.tryEmptyLog();
    commitHistoryDelta(db, volume, expectedHead, snapshot.xid, delta);
    self_->ready().add(volume, snapshot.xid);
    if (delta.size() >= bigDelta) db.tryEmptyLog();
  });
}

void SnapshotHistoryStore::dropPending(const VolumeUuid& volume, Xid upToXID, const std::set<Xid>& keeping) {
  self_->write([&](HistoryConnection& db) {
    std::string sql = "DELETE FROM snapshots WHERE volume_uuid=? AND state='pending' AND xid<=?";
    if (!keeping.empty()) {
      sql += " AND xid NOT IN (?";
      for (std::size_t i = 1; i < keeping.size(); ++i) sql += ",?";
      sql += ")";
    }
    HistoryStatement statement = db.prepare(sql);
    statement.bindAll(volume, upToXID);
    int parameter = 2;
    for (const Xid xid : keeping) statement.bind(++parameter, xid);
    statement.run();
  });
}

void SnapshotHistoryStore::deleteSnapshots(const VolumeUuid& volume, const std::vector<Xid>& xids) {
  if (xids.empty()) return;
  self_->write([&](HistoryConnection& db) {
    if (!readVolumeState(db, volume)) return;
    markHistoryDeletions(db, volume, xids);
    self_->refreshReady(db, volume);
    self_->compact(db, volume);
    self_->maintain(db);
  });
}

void SnapshotHistoryStore::compactHistory(const VolumeUuid& volume) {
  self_->write([&](HistoryConnection& db) {
    self_->compact(db, volume);
    self_->maintain(db);
  });
}

bool SnapshotHistoryStore::requeueHead(const VolumeUuid& volume, const StoredSnapshot& snapshot) {
  bool isDone = false;
  self_->write([&](HistoryConnection& db) {
    for (const StoredSnapshot& pending : readPendingSnapshots(db, volume)) {
      if (pending.xid > snapshot.xid) return;
    }
    isDone = self_->requeue(db, volume, {snapshot});
  });
  return isDone;
}

void SnapshotHistoryStore::requeueSole(const VolumeUuid& volume, const StoredSnapshot& snapshot) {
  self_->write([&](HistoryConnection& db) {
    HistoryTransaction transaction(db);
    restartHistoryVolume(db, volume);
    insertPending(db, volume, snapshot.xid, snapshot.name, snapshot.createdAt);
    transaction.commit();
    self_->ready().replace(volume, {});
    self_->maintain(db);
  });
}

bool SnapshotHistoryStore::requeueEnd(const VolumeUuid& volume, const std::vector<StoredSnapshot>& snapshots) {
  bool isAny = false;
  self_->write([&](HistoryConnection& db) { isAny = self_->requeue(db, volume, snapshots); });
  return isAny;
}

void SnapshotHistoryStore::noteChange(const VolumeUuid& volume, Xid xid, std::uint64_t change) {
  self_->write([&](HistoryConnection& db) {
    if (change == 0) {
      db.prepare("DELETE FROM snapshot_changes WHERE volume_uuid=? AND xid=?").runWith(volume, xid);
    } else {
      db.prepare("INSERT OR REPLACE INTO snapshot_changes VALUES(?,?,?)").runWith(volume, xid, change);
    }
  });
}

std::map<Xid, std::uint64_t> SnapshotHistoryStore::notedChanges(const VolumeUuid& volume) {
  using Changes = std::map<Xid, std::uint64_t>;
  return self_->read<Changes>([&](HistoryConnection& db) {
    HistoryStatement rows = db.prepare("SELECT xid,change FROM snapshot_changes WHERE volume_uuid=?");
    rows.bindAll(volume);
    Changes changes;
    while (rows.next("read noted changes")) changes.emplace(rows.xid(0), static_cast<std::uint64_t>(rows.integer(1)));
    return changes;
  });
}

void SnapshotHistoryStore::compactDeferred(const VolumeUuid& volume) {
  self_->write([&](HistoryConnection& db) {
    {
      HistoryStatement mark = db.prepare("SELECT 1 FROM history_deletions WHERE volume_uuid=? LIMIT 1");
      mark.bindAll(volume);
      if (!mark.next("read history deletions")) return;
    }
    self_->compact(db, volume);
    self_->maintain(db);
  });
}

void SnapshotHistoryStore::compactAllDeferred() {
  self_->write([&](HistoryConnection& db) {
    const std::vector<VolumeUuid> marked =
        readVolumes(db.prepare("SELECT DISTINCT volume_uuid FROM history_deletions ORDER BY volume_uuid"),
                    "read history deletions");
    std::optional<Error> first;
    for (const VolumeUuid& volume : marked) {
      try {
        self_->compact(db, volume);
      } catch (const Error& failure) {
        if (!first) first = failure;
      }
    }
    if (!marked.empty()) self_->maintain(db);
    if (first) throw Error(*first);
  });
}

void SnapshotHistoryStore::dropVolume(const VolumeUuid& volume) {
  self_->write([&](HistoryConnection& db) {
    dropHistoryVolume(db, volume);
    self_->ready().replace(volume, {});
    self_->maintain(db);
  });
}

void SnapshotHistoryStore::dropAll() {
  self_->write([&](HistoryConnection& db) {
    dropAllHistory(db);
    self_->ready().clear();
    self_->maintain(db);
  });
}

void SnapshotHistoryStore::markBootstrapComplete() {
  self_->write([&](HistoryConnection& db) {
    db.prepare("INSERT OR REPLACE INTO history_meta(key,value) VALUES('existing_snapshot_bootstrap','complete')").run();
    self_->bootstrapped();
  });
}

std::optional<HistoryVolume> SnapshotHistoryStore::volumeState(const VolumeUuid& volume) {
  return self_->read<std::optional<HistoryVolume>>([&](HistoryConnection& db) { return readVolumeState(db, volume); });
}

std::vector<VolumeUuid> SnapshotHistoryStore::volumes(HistoryVolumeState in) {
  return self_->read<std::vector<VolumeUuid>>([&](HistoryConnection& db) {
    HistoryStatement rows = db.prepare("SELECT uuid FROM volumes WHERE state=? ORDER BY uuid");
    rows.bindAll(historyStateText(in));
    return readVolumes(std::move(rows), "read volumes");
  });
}

std::vector<StoredSnapshot> SnapshotHistoryStore::pendingSnapshots(const VolumeUuid& volume) {
  return self_->read<std::vector<StoredSnapshot>>(
      [&](HistoryConnection& db) { return readPendingSnapshots(db, volume); });
}

std::vector<VolumeUuid> SnapshotHistoryStore::volumesWithPending() {
  return self_->read<std::vector<VolumeUuid>>([](HistoryConnection& db) {
    return readVolumes(db.prepare("SELECT DISTINCT volume_uuid FROM snapshots WHERE state!='ready'"),
                       "read volumes with pending snapshots");
  });
}

std::vector<StoredSnapshot> SnapshotHistoryStore::readySnapshots(const VolumeUuid& volume) {
  return self_->read<std::vector<StoredSnapshot>>(
      [&](HistoryConnection& db) { return readReadySnapshots(db, volume); });
}

bool SnapshotHistoryStore::isReady(const VolumeUuid& volume, Xid xid) { return snapshotState(volume, xid) == "ready"; }

std::optional<std::string> SnapshotHistoryStore::snapshotState(const VolumeUuid& volume, Xid xid) {
  return self_->read<std::optional<std::string>>([&](HistoryConnection& db) -> std::optional<std::string> {
    HistoryStatement row = db.prepare("SELECT state FROM snapshots WHERE volume_uuid=? AND xid=?");
    row.bindAll(volume, xid);
    if (!row.next("read snapshot state")) return std::nullopt;
    return std::string(row.text(0));
  });
}

bool SnapshotHistoryStore::hasSnapshot(const VolumeUuid& volume, Xid after, std::string_view state) {
  return self_->read<bool>([&](HistoryConnection& db) {
    HistoryStatement row = db.prepare("SELECT 1 FROM snapshots WHERE volume_uuid=? AND xid>? AND state=? LIMIT 1");
    row.bindAll(volume, after, state);
    return row.next("read snapshots");
  });
}

std::set<Xid> SnapshotHistoryStore::readyXIDs(const VolumeUuid& volume) { return self_->readyXIDs(volume); }

void SnapshotHistoryStore::consistentRead(const std::function<bool()>& isCancelled,
                                          FunctionRef<void(HistoryConnection&)> body) {
  self_->consistentRead(isCancelled, body);
}

SnapshotIndex::ShardedEntries SnapshotHistoryStore::reconstruct(const VolumeUuid& volume, Xid xid,
                                                                HistoryConnection& connection) {
  return reconstructTree(self_->dispatch(), connection, volume, xid);
}

SnapshotIndex::ShardedEntries SnapshotHistoryStore::reconstruct(const VolumeUuid& volume, Xid xid) {
  SnapshotIndex::ShardedEntries tree;
  consistentRead({}, [&](HistoryConnection& db) { tree = reconstruct(volume, xid, db); });
  return tree;
}

void SnapshotHistoryStore::forEachChange(const VolumeUuid& volume, Xid above, Xid upTo, HistoryConnection& connection,
                                         FunctionRef<void(Xid, const HistoryChange&)> visitor) {
  forEachHistoryChange(connection, volume, above, upTo, visitor);
}

}  // namespace quillmark
