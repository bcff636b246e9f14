// What two trees differ in.
// A moved object is one whose inode occurs once among what is gone and once among what is new, with the same type; its
// contents, its size and its directory don't count.
// Threads: pure functions over trees that nobody changes meanwhile.
#pragma once

#include <cstdint>

#include "history/index/ShardedEntries.h"

namespace quillmark {

class Dispatch;

namespace SnapshotIndex {

// The bare classification: without moves, without a cap, totalChangeCount 0.
[[nodiscard]] DiffOutput diffMaps(const ShardedEntries& first, const ShardedEntries& second, ComparisonMode mode);
// Takes what moved out of deleted and added.
void detectMoves(DiffOutput& output);
// Cuts the lists to so many rows in all, those added first.
[[nodiscard]] DiffOutput capped(DiffOutput output, std::int64_t limit);

// Classification, moves in a lineage, and the cap of rowLimit; rows over the cap are never made.
[[nodiscard]] DiffOutput diff(const ShardedEntries& first, const ShardedEntries& second, ComparisonMode mode);
// The same, the shards at the same time on the dispatch's threads.
[[nodiscard]] DiffOutput diffSharded(Dispatch& dispatch, const ShardedEntries& first, const ShardedEntries& second,
                                     ComparisonMode mode);

}  // namespace SnapshotIndex
}  // namespace quillmark
