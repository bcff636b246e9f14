// HistoryCommits: how a volume's chain begins and grows. Each commit is one transaction: the trees, the changes, the
// snapshot's state and the volume's head move together or not at all.
// Threads: as the connection.
// Errors:  throws Error of the domain Quillmark.SnapshotHistory; nothing is changed then.
#pragma once

#include "history/HistoryConnection.h"
#include "history/SnapshotHistoryStore.h"

namespace quillmark {

void commitHistoryBaseline(HistoryConnection& connection, const VolumeUuid& volume, Xid xid,
                           const SnapshotIndex::ShardedEntries& entries);
void commitHistoryDelta(HistoryConnection& connection, const VolumeUuid& volume, Xid expectedHead, Xid xid,
                        const HistoryDelta& delta);
// What the tree changes against the head. Takes memory for what differs, not for the tree; it counts with the tree's.
[[nodiscard]] HistoryDelta computeHistoryDelta(HistoryConnection& connection, const VolumeUuid& volume,
                                               const SnapshotIndex::ShardedEntries& tree);

}  // namespace quillmark
