#include "history/HistoryCompaction.h"

#include <array>
#include <optional>
#include <string>

#include "base/HelperLog.h"
#include "history/HistoryRows.h"

namespace quillmark {
namespace {

constexpr long transitionMismatch = 3;
constexpr long invariantFailed = 4;

constexpr std::array tablesOfVolumes{std::pair{"baseline_nodes", "volume_uuid"},
                                     std::pair{"head_nodes", "volume_uuid"},
                                     std::pair{"changes", "volume_uuid"},
                                     std::pair{"snapshots", "volume_uuid"},
                                     std::pair{"history_deletions", "volume_uuid"},
                                     std::pair{"snapshot_changes", "volume_uuid"},
                                     std::pair{"volumes", "uuid"}};

enum class How {
  stepwise,   // each step is a transaction of its own; the head waits for the pending snapshot that will succeed it
  inOnePiece  // inside the caller's transaction; pending snapshots don't count, and stay
};

class StepTransaction final {
 public:
  StepTransaction(HistoryConnection& connection, How how) {
    if (how == How::stepwise) own_.emplace(connection);
  }
  void commit() {
    if (own_) own_->commit();
  }

 private:
  std::optional<HistoryTransaction> own_;
};

class Compaction final {
 public:
  Compaction(HistoryConnection& connection, const VolumeUuid& volume, How how)
      : connection_(connection), volume_(volume), how_(how) {}

  // Throws the mismatch error when the chain contradicts itself.
  void run() {
    while (step()) {
    }
  }

  void testInvariant() {
    if (firstMark()) return;
    const std::optional<HistoryVolume> state = readVolumeState(connection_, volume_);
    if (!state || !state->baseline || !state->head) return;
    const bool holds =
        *state->baseline <= *state->head && readyEnd("MIN") == state->baseline && readyEnd("MAX") == state->head;
    if (!holds) {
      throw Error(std::string(snapshotHistoryDomain), invariantFailed,
                  "Snapshot history metadata invariant failed for volume " + volume_.text());
    }
  }

  void discardVolume() {
    if (how_ == How::inOnePiece) {
      restartHistoryVolume(connection_, volume_);
    } else {
      dropHistoryVolume(connection_, volume_);
    }
  }

 private:
  // Works off the lowest mark. False when nothing is left to do now.
  bool step() {
    const std::optional<Xid> deleted = firstMark();
    if (!deleted) return false;
    const std::optional<HistoryVolume> state = readVolumeState(connection_, volume_);
    if (!state || !state->baseline || !state->head) {
      connection_.prepare("DELETE FROM history_deletions WHERE volume_uuid=?").runWith(volume_);
      return false;
    }
    if (*deleted == *state->baseline) return advanceBaseline(*state->baseline);
    if (const std::optional<Xid> next = nextLink(*deleted)) {
      merge(*deleted, *next);
      return true;
    }
    if (*deleted == *state->head) return stepHeadBack(*deleted, *state->baseline);
    unmark(*deleted);
    return true;
  }

  // What takes over a transition: the next snapshot that can be asked for its tree, even if nothing changed at it, unless
  // a transition of another deleted one, or the head's, lies before that.
  std::optional<Xid> nextLink(Xid xid) {
    return find(
        "SELECT MIN(x) FROM (SELECT MIN(xid) AS x FROM changes WHERE volume_uuid=?1 AND xid>?2"
        " UNION ALL SELECT MIN(xid) FROM snapshots WHERE volume_uuid=?1 AND xid>?2 AND state='ready'"
        " UNION ALL SELECT head_xid FROM volumes WHERE uuid=?1 AND head_xid>?2)",
        xid);
  }

  bool advanceBaseline(Xid baseline) {
    const std::optional<Xid> next = find(
        "SELECT xid FROM snapshots WHERE volume_uuid=? AND xid>? AND state='ready' ORDER BY xid LIMIT 1", baseline);
    if (!next) {
      if (how_ == How::inOnePiece || !hasSnapshots()) discardVolume();
      return false;
    }
    StepTransaction transaction(connection_, how_);
    for (const Xid xid : changedXids(baseline, *next)) moveBaselineOver(xid);
    run("DELETE FROM changes WHERE volume_uuid=? AND xid<=?", volume_, *next);
    run("UPDATE volumes SET baseline_xid=? WHERE uuid=?", *next, volume_);
    run("DELETE FROM history_deletions WHERE volume_uuid=? AND xid<=?", volume_, *next);
    transaction.commit();
    return true;
  }

  std::vector<Xid> changedXids(Xid above, Xid upTo) {
    HistoryStatement rows =
        connection_.prepare("SELECT DISTINCT xid FROM changes WHERE volume_uuid=? AND xid>? AND xid<=? ORDER BY xid");
    rows.bindAll(volume_, above, upTo);
    std::vector<Xid> xids;
    while (rows.next("reconstruct history entries")) xids.push_back(rows.xid(0));
    return xids;
  }

  void moveBaselineOver(Xid xid) {
    run("DELETE FROM baseline_nodes WHERE volume_uuid=?1 AND path IN"
        " (SELECT path FROM changes WHERE volume_uuid=?1 AND xid=?2 AND after_type IS NULL)",
        volume_, xid);
    run("INSERT OR REPLACE INTO baseline_nodes"
        " SELECT volume_uuid,path,after_type,after_inode,after_parent_inode,after_size,after_mtime_ns,after_meta_bits,"
        "after_generation,name FROM changes WHERE volume_uuid=? AND xid=? AND after_type BETWEEN 1 AND 4 ORDER BY path",
        volume_, xid);
  }

  // The transition of `deleted` becomes part of the later one, if both tell the same story.
  void merge(Xid deleted, Xid next) {
    StepTransaction transaction(connection_, how_);
    requireSameStory(deleted, next);
    run("UPDATE changes SET xid=?3 WHERE volume_uuid=?1 AND xid=?2 AND NOT EXISTS"
        " (SELECT 1 FROM changes AS n WHERE n.volume_uuid=?1 AND n.xid=?3 AND n.path=changes.path)",
        volume_, deleted, next);
    // Left under the deleted XID is what both changed.
    run("UPDATE changes SET before_type=d.before_type,before_inode=d.before_inode,"
        "before_parent_inode=d.before_parent_inode,before_size=d.before_size,before_mtime_ns=d.before_mtime_ns,"
        "before_meta_bits=d.before_meta_bits,before_generation=d.before_generation"
        " FROM (SELECT * FROM changes WHERE volume_uuid=?1 AND xid=?2) AS d"
        " WHERE changes.volume_uuid=?1 AND changes.xid=?3 AND changes.path=d.path",
        volume_, deleted, next);
    run("DELETE FROM changes WHERE volume_uuid=?1 AND xid=?3 AND"
        " path IN (SELECT path FROM changes WHERE volume_uuid=?1 AND xid=?2) AND"
        " before_type IS after_type AND before_inode IS after_inode AND before_parent_inode IS after_parent_inode AND"
        " before_size IS after_size AND before_mtime_ns IS after_mtime_ns AND before_meta_bits IS after_meta_bits AND"
        " before_generation IS after_generation",
        volume_, deleted, next);
    run("DELETE FROM changes WHERE volume_uuid=? AND xid=?", volume_, deleted);
    unmark(deleted);
    transaction.commit();
  }

  void requireSameStory(Xid deleted, Xid next) {
    HistoryStatement row = connection_.prepare(
        "SELECT d.path FROM changes AS d JOIN changes AS n ON n.volume_uuid=d.volume_uuid AND n.xid=?3 AND"
        " n.path=d.path WHERE d.volume_uuid=?1 AND d.xid=?2 AND NOT (d.after_type IS n.before_type AND"
        " d.after_inode IS n.before_inode AND d.after_parent_inode IS n.before_parent_inode AND"
        " d.after_size IS n.before_size AND d.after_mtime_ns IS n.before_mtime_ns AND"
        " d.after_meta_bits IS n.before_meta_bits AND d.after_generation IS n.before_generation)"
        " ORDER BY d.path LIMIT 1");
    row.bindAll(volume_, deleted, next);
    if (!row.next("read history transition")) return;
    throw Error(std::string(snapshotHistoryDomain), transitionMismatch,
                "History transition mismatch at " + std::string(row.text(0)) + " while compacting xid " +
                    std::to_string(deleted.value) + " into " + std::to_string(next.value));
  }

  // The head's transition stays while a pending snapshot will succeed it.
  bool stepHeadBack(Xid head, Xid baseline) {
    if (how_ == How::stepwise && isWaitedFor(head)) return false;
    const std::optional<Xid> previous = find(
        "SELECT xid FROM snapshots WHERE volume_uuid=? AND xid<? AND state='ready' ORDER BY xid DESC LIMIT 1", head);
    if (!previous || *previous < baseline) {
      discardVolume();
      return false;
    }
    StepTransaction transaction(connection_, how_);
    run("DELETE FROM head_nodes WHERE volume_uuid=?1 AND path IN"
        " (SELECT path FROM changes WHERE volume_uuid=?1 AND xid=?2 AND before_type IS NULL)",
        volume_, head);
    run("INSERT OR REPLACE INTO head_nodes"
        " SELECT volume_uuid,path,before_type,before_inode,before_parent_inode,before_size,before_mtime_ns,"
        "before_meta_bits,before_generation,name FROM changes"
        " WHERE volume_uuid=? AND xid=? AND before_type IS NOT NULL ORDER BY path",
        volume_, head);
    run("DELETE FROM changes WHERE volume_uuid=? AND xid>?", volume_, *previous);
    run("UPDATE volumes SET head_xid=? WHERE uuid=?", *previous, volume_);
    unmark(head);
    transaction.commit();
    return true;
  }

  template <class... Values>
  void run(std::string_view sql, const Values&... values) {
    connection_.prepare(sql).runWith(values...);
  }
  void unmark(Xid xid) { run("DELETE FROM history_deletions WHERE volume_uuid=? AND xid=?", volume_, xid); }

  // The first column of the first row, unless it is NULL.
  template <class... Values>
  std::optional<Xid> find(std::string_view sql, const Values&... values) {
    HistoryStatement row = connection_.prepare(sql);
    row.bindAll(volume_, values...);
    if (!row.next() || row.isNull(0)) return std::nullopt;
    return row.xid(0);
  }
  std::optional<Xid> firstMark() {
    return find("SELECT xid FROM history_deletions WHERE volume_uuid=? ORDER BY xid LIMIT 1");
  }
  std::optional<Xid> readyEnd(const std::string& function) {
    return find("SELECT " + function + "(xid) FROM snapshots WHERE volume_uuid=? AND state='ready'");
  }
  bool isWaitedFor(Xid head) {
    return find("SELECT xid FROM snapshots WHERE volume_uuid=? AND xid>? AND state='pending' LIMIT 1", head)
        .has_value();
  }
  bool hasSnapshots() { return find("SELECT xid FROM snapshots WHERE volume_uuid=? LIMIT 1").has_value(); }

  HistoryConnection& connection_;
  const VolumeUuid& volume_;
  const How how_;
};

void markDeleted(HistoryConnection& connection, const VolumeUuid& volume, const std::vector<Xid>& xids) {
  for (const Xid xid : xids) {
    connection.prepare("INSERT OR IGNORE INTO history_deletions(volume_uuid,xid) VALUES(?,?)").runWith(volume, xid);
    for (const char* table : {"snapshots", "snapshot_changes"}) {
      connection.prepare("DELETE FROM " + std::string(table) + " WHERE volume_uuid=? AND xid=?").runWith(volume, xid);
    }
  }
}

void compact(HistoryConnection& connection, HelperLog& log, const VolumeUuid& volume, How how) {
  Compaction compaction(connection, volume, how);
  try {
    compaction.run();
  } catch (const Error& error) {
    if (error.code() != transitionMismatch) throw;
    log.error("history: transition mismatch while compacting " + volume.text() +
              "; dropping volume history for rebuild (" + error.description() + ")");
    compaction.discardVolume();
  }
  try {
    compaction.testInvariant();
  } catch (const Error& error) {
    if (error.code() != invariantFailed) throw;
    log.error("history: metadata invariant failed for " + volume.text() + "; dropping volume history for rebuild (" +
              error.description() + ")");
    compaction.discardVolume();
  }
}

}  // namespace

void markHistoryDeletions(HistoryConnection& connection, const VolumeUuid& volume, const std::vector<Xid>& xids) {
  HistoryTransaction transaction(connection);
  markDeleted(connection, volume, xids);
  transaction.commit();
}

void compactHistoryVolume(HistoryConnection& connection, HelperLog& log, const VolumeUuid& volume) {
  compact(connection, log, volume, How::stepwise);
}

void withdrawFromHistory(HistoryConnection& connection, HelperLog& log, const VolumeUuid& volume,
                         const std::vector<Xid>& xids) {
  markDeleted(connection, volume, xids);
  compact(connection, log, volume, How::inOnePiece);
}

void dropHistoryVolume(HistoryConnection& connection, const VolumeUuid& volume) {
  HistoryTransaction transaction(connection);
  for (const auto& [table, column] : tablesOfVolumes) {
    connection.prepare("DELETE FROM " + std::string(table) + " WHERE " + column + "=?").runWith(volume);
  }
  transaction.commit();
}

void restartHistoryVolume(HistoryConnection& connection, const VolumeUuid& volume) {
  for (const char* table : {"baseline_nodes", "head_nodes", "changes", "history_deletions", "snapshot_changes"}) {
    connection.prepare("DELETE FROM " + std::string(table) + " WHERE volume_uuid=?").runWith(volume);
  }
  connection.prepare("DELETE FROM snapshots WHERE volume_uuid=? AND state='ready'").runWith(volume);
  connection.prepare("INSERT OR REPLACE INTO volumes(uuid,state) VALUES(?,?)")
      .runWith(volume, historyStateText(HistoryVolumeState::baselinePending));
}

void dropAllHistory(HistoryConnection& connection) {
  HistoryTransaction transaction(connection);
  for (const auto& [table, column] : tablesOfVolumes) connection.prepare("DELETE FROM " + std::string(table)).run();
  transaction.commit();
}

}  // namespace quillmark
