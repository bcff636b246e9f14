#include "history/HistoryRows.h"

#include <algorithm>
#include <array>
#include <utility>

namespace quillmark {
namespace {

using SnapshotIndex::EntryView;
using SnapshotIndex::Facts;

constexpr int factColumns = 7;

struct StateText {
  HistoryVolumeState state;
  std::string_view text;
};
constexpr std::array<StateText, 5> stateTexts{{{HistoryVolumeState::healthy, "healthy"},
                                               {HistoryVolumeState::baselinePending, "baselinePending"},
                                               {HistoryVolumeState::repairQueued, "repairQueued"},
                                               {HistoryVolumeState::rebuilding, "rebuilding"},
                                               {HistoryVolumeState::unavailable, "unavailable"}}};

HistoryVolumeState stateOf(std::string_view text) {
  for (const StateText& known : stateTexts) {
    if (known.text == text) return known.state;
  }
  return HistoryVolumeState::unavailable;
}

std::optional<Xid> optionalXid(const HistoryStatement& row, int column) {
  return row.isNull(column) ? std::nullopt : std::optional(row.xid(column));
}

std::vector<StoredSnapshot> snapshots(HistoryStatement rows, const VolumeUuid& volume, std::string_view operation) {
  rows.bindAll(volume);
  std::vector<StoredSnapshot> found;
  while (rows.next(operation)) {
    found.push_back({rows.xid(0), std::string(rows.text(1)), Date::from1970(rows.real(2)), std::string(rows.text(3))});
  }
  return found;
}

// What the changes leave of a path, absent where they remove it.
struct LastState {
  std::string path;
  std::optional<Facts> facts;
};

// Ascending by path, each path once.
std::vector<LastState> lastStates(HistoryConnection& connection, const VolumeUuid& volume, Xid above, Xid upTo) {
  constexpr std::string_view operation = "reconstruct history entries";
  HistoryStatement rows = connection.prepare(
      "SELECT path,after_type,after_inode,after_parent_inode,after_size,after_mtime_ns,after_meta_bits,"
      "after_generation FROM changes WHERE volume_uuid=? AND xid>? AND xid<=? ORDER BY xid,path");
  rows.bindAll(volume, above, upTo);
  std::vector<LastState> states;
  while (rows.next(operation)) {
    std::optional<Facts> facts = factsAt(rows, 1);
    if (facts || rows.isNull(1)) states.push_back({std::string(rows.text(0)), facts});
  }
  std::stable_sort(states.begin(), states.end(),
                   [](const LastState& a, const LastState& b) { return a.path < b.path; });
  // From behind, the first of equal ones is the last that was written.
  const auto kept = std::unique(states.rbegin(), states.rend(),
                                [](const LastState& a, const LastState& b) { return a.path == b.path; });
  states.erase(states.begin(), kept.base());
  return states;
}

}  // namespace

std::string_view historyStateText(HistoryVolumeState state) {
  return stateTexts.at(static_cast<std::size_t>(state)).text;
}

std::string_view nameOfPath(std::string_view path) { return path.substr(path.rfind('/') + 1); }

std::optional<Facts> factsAt(const HistoryStatement& row, int firstColumn) {
  const auto type = SnapshotIndex::entryType(row.integer(firstColumn));  // NULL reads as 0, which is no type
  if (!type) return std::nullopt;
  return Facts{.type = *type,
               .inode = static_cast<std::uint64_t>(row.integer(firstColumn + 1)),
               .parentInode = static_cast<std::uint64_t>(row.integer(firstColumn + 2)),
               .size = row.integer(firstColumn + 3),
               .mtimeNS = row.integer(firstColumn + 4),
               .metaBits = row.integer(firstColumn + 5),
               .generation = row.integer(firstColumn + 6)};
}

int bindFacts(HistoryStatement& statement, int firstParameter, const Facts* facts) {
  if (!facts) {
    for (int i = 0; i < factColumns; ++i) statement.bindNull(firstParameter + i);
    return firstParameter + factColumns;
  }
  statement.bind(firstParameter, static_cast<std::int64_t>(facts->type));
  statement.bind(firstParameter + 1, facts->inode);
  statement.bind(firstParameter + 2, facts->parentInode);
  statement.bind(firstParameter + 3, facts->size);
  statement.bind(firstParameter + 4, facts->mtimeNS);
  statement.bind(firstParameter + 5, facts->metaBits);
  statement.bind(firstParameter + 6, facts->generation);
  return firstParameter + factColumns;
}

std::string historyTreeTable(HistoryTree tree) {
  return tree == HistoryTree::baseline ? "baseline_nodes" : "head_nodes";
}

HistoryTreeCursor::HistoryTreeCursor(HistoryConnection& connection, HistoryTree tree, const VolumeUuid& volume,
                                     std::string_view operation)
    : rows_(connection.prepare("SELECT path,type,inode,parent_inode,size,mtime_ns,meta_bits,generation FROM " +
                               historyTreeTable(tree) + " WHERE volume_uuid=? ORDER BY path")),
      operation_(operation) {
  rows_.bindAll(volume);
}

std::optional<EntryView> HistoryTreeCursor::next() {
  while (rows_.next(operation_)) {
    if (const std::optional<Facts> facts = factsAt(rows_, 1)) return EntryView{*facts, rows_.text(0)};
  }
  return std::nullopt;
}

std::optional<HistoryVolume> readVolumeState(HistoryConnection& connection, const VolumeUuid& volume) {
  HistoryStatement row = connection.prepare("SELECT baseline_xid,head_xid,state FROM volumes WHERE uuid=?");
  row.bindAll(volume);
  if (!row.next("read volume state")) return std::nullopt;
  return HistoryVolume{optionalXid(row, 0), optionalXid(row, 1), stateOf(row.text(2))};
}

std::vector<StoredSnapshot> readReadySnapshots(HistoryConnection& connection, const VolumeUuid& volume) {
  return snapshots(connection.prepare("SELECT xid,name,created_at,state FROM snapshots WHERE volume_uuid=? AND"
                                      " state='ready' ORDER BY xid"),
                   volume, "read ready snapshots");
}

std::vector<StoredSnapshot> readPendingSnapshots(HistoryConnection& connection, const VolumeUuid& volume) {
  return snapshots(connection.prepare("SELECT xid,name,created_at,state FROM snapshots WHERE volume_uuid=? AND"
                                      " state!='ready' ORDER BY xid"),
                   volume, "read pending snapshots");
}

std::set<Xid> readReadyXids(HistoryConnection& connection, const VolumeUuid& volume) {
  HistoryStatement rows = connection.prepare("SELECT xid FROM snapshots WHERE volume_uuid=? AND state='ready'");
  rows.bindAll(volume);
  std::set<Xid> xids;
  while (rows.next("read ready snapshots")) xids.insert(rows.xid(0));
  return xids;
}

std::vector<VolumeUuid> readVolumes(HistoryStatement statement, std::string_view operation) {
  std::vector<VolumeUuid> volumes;
  while (statement.next(operation)) volumes.emplace_back(statement.text(0));
  return volumes;
}

void forEachHistoryChange(HistoryConnection& connection, const VolumeUuid& volume, Xid above, Xid upTo,
                          FunctionRef<void(Xid, const HistoryChange&)> visitor) {
  HistoryStatement rows = connection.prepare(
      "SELECT xid,path,before_type,before_inode,before_parent_inode,before_size,before_mtime_ns,before_meta_bits,"
      "before_generation,after_type,after_inode,after_parent_inode,after_size,after_mtime_ns,after_meta_bits,"
      "after_generation FROM changes WHERE volume_uuid=? AND xid>? AND xid<=? ORDER BY xid,path");
  rows.bindAll(volume, above, upTo);
  constexpr int before = 2, after = before + factColumns;
  HistoryChange change;
  while (rows.next("read history changes")) {
    change.before = factsAt(rows, before);
    change.after = factsAt(rows, after);
    if ((!change.before && !rows.isNull(before)) || (!change.after && !rows.isNull(after))) continue;
    change.path = rows.text(1);
    visitor(rows.xid(0), change);
  }
}

SnapshotIndex::ShardedEntries reconstructTree(Dispatch& dispatch, HistoryConnection& connection,
                                              const VolumeUuid& volume, Xid xid) {
  const std::optional<HistoryVolume> state = readVolumeState(connection, volume);
  if (!state || !state->baseline || xid < *state->baseline) return {};
  const std::vector<LastState> changed = lastStates(connection, volume, *state->baseline, xid);
  HistoryTreeCursor baseline(connection, HistoryTree::baseline, volume, "reconstruct history entries");
  SnapshotIndex::EntryBuckets buckets;
  const auto add = [&](const EntryView& entry) { buckets.at(SnapshotIndex::shardOf(entry.path)).append(entry); };
  auto change = changed.begin();
  const auto addChange = [&] {
    if (change->facts) add({*change->facts, change->path});
    ++change;
  };
  while (const std::optional<EntryView> entry = baseline.next()) {
    while (change != changed.end() && change->path < entry->path) addChange();
    if (change != changed.end() && change->path == entry->path) {
      addChange();
    } else {
      add(*entry);
    }
  }
  while (change != changed.end()) addChange();
  return {dispatch, std::move(buckets)};
}

}  // namespace quillmark
