#include "history/HistoryCommits.h"

#include <utility>

#include "history/HistoryRows.h"
#include "history/HistorySchema.h"

namespace quillmark {
namespace {

using SnapshotIndex::EntryView;
using SnapshotIndex::Facts;

// What lies beside a tree counts with it.
class DeltaMemory final {
 public:
  explicit DeltaMemory(TreeClaim* claim) : claim_(claim) {}

  void added(const HistoryDelta& delta) {
    paths_ += delta.back().path.capacity();
    if (delta.size() % changesPerCount == 0) count(delta);
  }
  void count(const HistoryDelta& delta) {
    const std::size_t bytes = delta.capacity() * sizeof(HistoryChange) + paths_;
    const bool fits = !claim_ || claim_->take(bytes - std::exchange(counted_, bytes));
    if (!fits) throw historyError("What changed takes too much memory");
  }

 private:
  static constexpr std::size_t changesPerCount = 4096;
  TreeClaim* const claim_;
  std::size_t paths_ = 0, counted_ = 0;
};

bool isEmpty(HistoryConnection& connection, HistoryTree tree) {
  HistoryStatement row = connection.prepare("SELECT NOT EXISTS(SELECT 1 FROM " + historyTreeTable(tree) + ")");
  return row.next() && row.integer(0) == 1;
}

void insertBaselineRows(HistoryConnection& connection, const VolumeUuid& volume,
                        const SnapshotIndex::ShardedEntries& entries) {
  HistoryStatement row = connection.prepare("INSERT INTO baseline_nodes VALUES(?,?,?,?,?,?,?,?,?,?)");
  row.bind(1, volume);
  entries.forEachByPath([&](const EntryView& entry) {
    row.bind(2, entry.path);
    row.bind(bindFacts(row, 3, &entry), nameOfPath(entry.path));
    row.run();
  });
}

// In the order of the keys. Where the tables hold nothing else, one is copied to the other as it lies, and the name index
// is made in one go afterwards.
void insertBothTrees(HistoryConnection& connection, const VolumeUuid& volume,
                     const SnapshotIndex::ShardedEntries& entries) {
  const bool alone = isEmpty(connection, HistoryTree::baseline) && isEmpty(connection, HistoryTree::head);
  if (alone) dropBaselineNameIndex(connection);
  insertBaselineRows(connection, volume, entries);
  if (alone) {
    connection.prepare("INSERT INTO head_nodes SELECT * FROM baseline_nodes").run();
    createBaselineNameIndex(connection);
  } else {
    connection.prepare("INSERT INTO head_nodes SELECT * FROM baseline_nodes WHERE volume_uuid=? ORDER BY path")
        .runWith(volume);
  }
}

class DeltaCommit final {
 public:
  DeltaCommit(HistoryConnection& connection, const VolumeUuid& volume, Xid expectedHead, Xid xid)
      : connection_(connection), volume_(volume), expectedHead_(expectedHead), xid_(xid) {}

  // The scan before it held no lock: what it assumed is tested again.
  void validate() {
    const std::optional<HistoryVolume> state = readVolumeState(connection_, volume_);
    if (!state || !state->head || *state->head != expectedHead_) refuse("history head changed while it was scanned");
    HistoryStatement pending =
        connection_.prepare("SELECT 1 FROM snapshots WHERE volume_uuid=? AND xid=? AND state='pending'");
    pending.bindAll(volume_, xid_);
    if (!pending.next("validate pending snapshot")) refuse("snapshot is no longer pending");
  }

  void write(const HistoryDelta& delta) {
    HistoryStatement change = connection_.prepare("INSERT INTO changes VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
    HistoryStatement remove = connection_.prepare("DELETE FROM head_nodes WHERE volume_uuid=? AND path=?");
    HistoryStatement replace = connection_.prepare("INSERT OR REPLACE INTO head_nodes VALUES(?,?,?,?,?,?,?,?,?,?)");
    change.bindAll(volume_, xid_);
    remove.bind(1, volume_);
    replace.bind(1, volume_);
    for (const HistoryChange& pair : delta) {
      const std::string_view name = nameOfPath(pair.path);
      change.bind(3, pair.path);
      const int after = bindFacts(change, 4, pair.before ? &*pair.before : nullptr);
      change.bind(bindFacts(change, after, pair.after ? &*pair.after : nullptr), name);
      change.run();
      if (pair.after) {
        replace.bind(2, pair.path);
        replace.bind(bindFacts(replace, 3, &*pair.after), name);
        replace.run();
      } else {
        remove.bind(2, pair.path);
        remove.run();
      }
    }
  }

  void moveHead() {
    connection_.prepare("UPDATE snapshots SET state='ready' WHERE volume_uuid=? AND xid=? AND state='pending'")
        .runWith(volume_, xid_);
    if (connection_.changes() != 1) refuse("pending state changed");
    connection_.prepare("UPDATE volumes SET head_xid=?,state=? WHERE uuid=? AND head_xid=?")
        .runWith(xid_, historyStateText(HistoryVolumeState::healthy), volume_, expectedHead_);
    if (connection_.changes() != 1) refuse("history head changed at commit");
  }

 private:
  [[noreturn]] void refuse(const std::string& why) const {
    throw connection_.failure("commit snapshot " + std::to_string(xid_.value) + ": " + why);
  }

  HistoryConnection& connection_;
  const VolumeUuid& volume_;
  const Xid expectedHead_;
  const Xid xid_;
};

}  // namespace

void commitHistoryBaseline(HistoryConnection& connection, const VolumeUuid& volume, Xid xid,
                           const SnapshotIndex::ShardedEntries& entries) {
  HistoryTransaction transaction(connection);
  for (const char* table : {"baseline_nodes", "head_nodes", "changes"}) {
    connection.prepare("DELETE FROM " + std::string(table) + " WHERE volume_uuid=?").runWith(volume);
  }
  insertBothTrees(connection, volume, entries);
  connection.prepare("UPDATE snapshots SET state='ready' WHERE volume_uuid=? AND xid=?").runWith(volume, xid);
  connection.prepare("UPDATE volumes SET baseline_xid=?,head_xid=?,state=? WHERE uuid=?")
      .runWith(xid, xid, historyStateText(HistoryVolumeState::healthy), volume);
  transaction.commit();
}

void commitHistoryDelta(HistoryConnection& connection, const VolumeUuid& volume, Xid expectedHead, Xid xid,
                        const HistoryDelta& delta) {
  HistoryTransaction transaction(connection);
  DeltaCommit commit(connection, volume, expectedHead, xid);
  commit.validate();
  commit.write(delta);
  commit.moveHead();
  transaction.commit();
}

HistoryDelta computeHistoryDelta(HistoryConnection& connection, const VolumeUuid& volume,
                                 const SnapshotIndex::ShardedEntries& tree) {
  HistoryTreeCursor head(connection, HistoryTree::head, volume, "read history head");
  const auto scanned = tree.byPath();
  std::optional<EntryView> before = head.next(), after = scanned->next();
  HistoryDelta delta;
  DeltaMemory memory(tree.claim().get());
  const auto add = [&](HistoryChange change) {
    delta.push_back(std::move(change));
    memory.added(delta);
  };
  while (before || after) {
    const int order = !before ? 1 : !after ? -1 : before->path.compare(after->path);
    if (order < 0) {
      add({std::string(before->path), *before, std::nullopt});
    } else if (order > 0) {
      add({std::string(after->path), std::nullopt, *after});
    } else if (static_cast<const Facts&>(*before) != *after) {
      add({std::string(after->path), *before, *after});
    }
    if (order <= 0) before = head.next();
    if (order >= 0) after = scanned->next();
  }
  memory.count(delta);
  return delta;
}

}  // namespace quillmark
