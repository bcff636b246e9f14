// HistoryRows: what the rows of the history database say, over any connection to it.
// Threads: as the connection.
// Errors:  throws Error of the domain Quillmark.SnapshotHistory, code 2, naming the read.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/FunctionRef.h"
#include "history/HistoryConnection.h"
#include "history/SnapshotHistoryStore.h"

namespace quillmark {

class Dispatch;

[[nodiscard]] std::string_view historyStateText(HistoryVolumeState state);
// The text behind the last "/"; empty for the root.
[[nodiscard]] std::string_view nameOfPath(std::string_view path);

// Of seven columns from the first on; nothing when the type is NULL or no type.
[[nodiscard]] std::optional<SnapshotIndex::Facts> factsAt(const HistoryStatement& row, int firstColumn);
// To seven parameters, NULL when absent; gives the parameter behind them.
int bindFacts(HistoryStatement& statement, int firstParameter, const SnapshotIndex::Facts* facts);

enum class HistoryTree { baseline, head };
[[nodiscard]] std::string historyTreeTable(HistoryTree tree);
// Ascending by path, without rows of no type.
class HistoryTreeCursor final {
 public:
  HistoryTreeCursor(HistoryConnection& connection, HistoryTree tree, const VolumeUuid& volume,
                    std::string_view operation);
  // Lives until the next one; nothing at the end.
  [[nodiscard]] std::optional<SnapshotIndex::EntryView> next();

 private:
  HistoryStatement rows_;
  const std::string operation_;
};

[[nodiscard]] std::optional<HistoryVolume> readVolumeState(HistoryConnection& connection, const VolumeUuid& volume);
// By ascending XID.
[[nodiscard]] std::vector<StoredSnapshot> readReadySnapshots(HistoryConnection& connection, const VolumeUuid& volume);
[[nodiscard]] std::vector<StoredSnapshot> readPendingSnapshots(HistoryConnection& connection, const VolumeUuid& volume);
[[nodiscard]] std::set<Xid> readReadyXids(HistoryConnection& connection, const VolumeUuid& volume);
// Of one column of volume UUIDs.
[[nodiscard]] std::vector<VolumeUuid> readVolumes(HistoryStatement statement, std::string_view operation);

// Rows of XIDs above the first up to the second, by XID and path, without those of no type.
void forEachHistoryChange(HistoryConnection& connection, const VolumeUuid& volume, Xid above, Xid upTo,
                          FunctionRef<void(Xid, const HistoryChange&)> visitor);
// The tree at an XID; empty without a baseline or below it.
[[nodiscard]] SnapshotIndex::ShardedEntries reconstructTree(Dispatch& dispatch, HistoryConnection& connection,
                                                            const VolumeUuid& volume, Xid xid);

}  // namespace quillmark
