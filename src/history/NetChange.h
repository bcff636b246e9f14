// NetChange: what changed between two states of a volume's history, from its transitions alone: the trees are not read.
// Threads: any.
// Errors:  throws the store's.
#pragma once

#include <functional>
#include <string_view>

#include "history/SnapshotHistoryStore.h"
#include "history/index/ShardedEntries.h"

namespace quillmark {

class Dispatch;

// Of the paths that changed: as they were at the lower XID, and as they are at the higher one.
struct NetChange {
  SnapshotIndex::ShardedEntries before, after;
  bool truncated = false;  // paths past SnapshotIndex::rowLimit are missing
};

// In one read transaction. Only paths that `keeps` takes are returned; all count towards the limit. Empty: all.
[[nodiscard]] NetChange readNetChange(Dispatch& dispatch, SnapshotHistoryStore& store, const VolumeUuid& volume,
                                      Xid lower, Xid higher,
                                      const std::function<bool(std::string_view path)>& keeps = {});
// In a lineage: classified, with moves, and cut.
[[nodiscard]] SnapshotIndex::DiffOutput diff(const NetChange& change);

}  // namespace quillmark
