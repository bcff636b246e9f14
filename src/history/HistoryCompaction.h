// HistoryCompaction: takes the transitions of deleted snapshots out of a volume's chain, by merging each into its
// neighbour, and tests the chain afterwards. What can't be repaired is dropped whole; the snapshots are indexed anew.
// All of it happens inside the database: its cost grows with the transitions, not with the trees.
// Threads: as the connection.
// Errors:  throws Error of the domain Quillmark.SnapshotHistory; what was merged before stays merged.
#pragma once

#include <vector>

#include "history/HistoryConnection.h"
#include "history/SnapshotHistoryStore.h"

namespace quillmark {

// Marks the snapshots as deleted and takes their rows away, in one transaction.
void markHistoryDeletions(HistoryConnection& connection, const VolumeUuid& volume, const std::vector<Xid>& xids);
// Works off the volume's marks, as far as the chain allows now, and tests what is left.
void compactHistoryVolume(HistoryConnection& connection, HelperLog& log, const VolumeUuid& volume);
// Both at once, inside the caller's transaction. Pending snapshots don't keep the head from stepping back, and stay
// whatever becomes of the chain: for when none of them is being scanned.
void withdrawFromHistory(HistoryConnection& connection, HelperLog& log, const VolumeUuid& volume,
                         const std::vector<Xid>& xids);
// Inside the caller's transaction: of the volume only the pending snapshots stay.
void restartHistoryVolume(HistoryConnection& connection, const VolumeUuid& volume);
void dropHistoryVolume(HistoryConnection& connection, const VolumeUuid& volume);
void dropAllHistory(HistoryConnection& connection);

}  // namespace quillmark
