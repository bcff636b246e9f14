#include "ChainInvariants.h"

#include <map>
#include <optional>

#include "history/HistoryConnection.h"
#include "history/HistoryRows.h"
#include "history/SnapshotHistoryStore.h"

namespace quillmark {
namespace {

using Tree = std::map<std::string, SnapshotIndex::Facts>;

class Chain final {
 public:
  Chain(HistoryConnection& connection, Dispatch& dispatch, const VolumeUuid& volume)
      : connection_(connection), dispatch_(dispatch), volume_(volume) {}

  std::string complaint() {
    const std::optional<HistoryVolume> state = readVolumeState(connection_, volume_);
    if (!state) return count("snapshots") + rows() == 0 ? "" : "rows of a volume that isn't known";
    if (!state->baseline || !state->head) return rows() == 0 ? "" : "trees without a baseline";
    if (*state->baseline > *state->head) return "the baseline lies above the head";
    const bool marked = count("history_deletions") > 0;
    if (const std::string wrong = marked ? "" : ends(*state); !wrong.empty()) return wrong;
    if (outside(*state) > 0) return "changes outside of baseline and head";
    if (!marked && count("changes",
                         " AND xid NOT IN (SELECT xid FROM snapshots AS s WHERE s.volume_uuid=changes."
                         "volume_uuid AND s.state='ready')") > 0) {
      return "changes of no ready snapshot";
    }
    if (wrongNames() > 0) return "a name that is not its path's";
    return trees(*state);
  }

 private:
  std::int64_t number(const std::string& sql) {
    HistoryStatement row = connection_.prepare(sql);
    row.bindAll(volume_);
    return row.next() ? row.integer(0) : 0;
  }
  std::int64_t count(const std::string& table, const std::string& condition = "") {
    return number("SELECT count(*) FROM " + table + " WHERE volume_uuid=?" + condition);
  }
  std::int64_t rows() { return count("baseline_nodes") + count("head_nodes") + count("changes"); }
  std::int64_t outside(const HistoryVolume& state) {
    return count("changes", " AND (xid<=" + std::to_string(state.baseline->value) + " OR xid>" +
                                std::to_string(state.head->value) + ")");
  }
  std::int64_t wrongNames() {
    std::int64_t wrong = 0;
    for (const char* table : {"baseline_nodes", "head_nodes", "changes"}) {
      wrong += number("SELECT count(*) FROM " + std::string(table) +
                      " WHERE volume_uuid=? AND (name LIKE '%/%' OR substr(path,-length(name)-1)!='/'||name)");
    }
    return wrong;
  }

  std::string ends(const HistoryVolume& state) {
    const std::vector<StoredSnapshot> ready = readReadySnapshots(connection_, volume_);
    if (ready.empty()) return "no ready snapshot";
    if (ready.front().xid != *state.baseline) return "the baseline is not the smallest ready XID";
    if (ready.back().xid != *state.head) return "the head is not the largest ready XID";
    return "";
  }

  Tree stored(HistoryTree tree) {
    Tree found;
    HistoryTreeCursor rows(connection_, tree, volume_, "read a tree");
    while (const auto entry = rows.next()) found.emplace(entry->path, *entry);
    return found;
  }

  // Each change takes its path from the state that the one before it left, and the last of them leave the head.
  std::string trees(const HistoryVolume& state) {
    Tree tree = stored(HistoryTree::baseline);
    std::string wrong;
    forEachHistoryChange(connection_, volume_, *state.baseline, *state.head, [&](Xid xid, const HistoryChange& change) {
      const auto known = tree.find(change.path);
      const auto before = known == tree.end() ? std::nullopt : std::optional(known->second);
      if (before != change.before)
        wrong = "the change of " + change.path + " at " + std::to_string(xid.value) + " begins with another state";
      if (change.before == change.after) wrong = "no change of " + change.path + " at " + std::to_string(xid.value);
      tree.erase(change.path);
      if (change.after) tree.emplace(change.path, *change.after);
    });
    if (!wrong.empty()) return wrong;
    if (tree != stored(HistoryTree::head)) return "the chain does not end in the head";
    Tree rebuilt;
    reconstructTree(dispatch_, connection_, volume_, *state.head).forEach([&](const SnapshotIndex::EntryView& entry) {
      rebuilt.emplace(entry.path, entry);
    });
    return rebuilt == tree ? "" : "the rebuilt head is not the head";
  }

  HistoryConnection& connection_;
  Dispatch& dispatch_;
  const VolumeUuid& volume_;
};

}  // namespace

std::string brokenInvariant(HistoryConnection& connection, Dispatch& dispatch) {
  HistoryStatement integrity = connection.prepare("PRAGMA integrity_check");
  if (!integrity.next() || integrity.text(0) != "ok") return "damaged: " + std::string(integrity.text(0));
  const std::vector<VolumeUuid> volumes =
      readVolumes(connection.prepare(
                      "SELECT uuid FROM volumes UNION SELECT volume_uuid FROM snapshots UNION SELECT volume_uuid FROM"
                      " baseline_nodes UNION SELECT volume_uuid FROM head_nodes UNION SELECT volume_uuid FROM changes"),
                  "read volumes");
  for (const VolumeUuid& volume : volumes) {
    const std::string complaint = Chain(connection, dispatch, volume).complaint();
    if (!complaint.empty()) return volume.text() + ": " + complaint;
  }
  return "";
}

std::string brokenInvariant(SnapshotHistoryStore& store, Dispatch& dispatch) {
  std::string complaint;
  store.consistentRead({}, [&](HistoryConnection& connection) { complaint = brokenInvariant(connection, dispatch); });
  return complaint;
}

}  // namespace quillmark
