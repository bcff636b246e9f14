// forEachShard: the same work on all shards of a tree, at the same time where threads are free.
#pragma once

#include <cstddef>

#include "base/FunctionRef.h"
#include "platform/dispatch.h"

namespace quillmark::SnapshotIndex {

// Calls the work once with the number of each shard, on the caller and a few threads of the dispatch, and returns when
// all is done. From anywhere, queue items included: it waits only for what has begun. What the work throws ends the
// process.
void forEachShard(Dispatch& dispatch, QualityOfService qualityOfService, FunctionRef<void(std::size_t)> work);

}  // namespace quillmark::SnapshotIndex
