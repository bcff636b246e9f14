#include "history/index/EachShard.h"

#include <atomic>
#include <memory>

#include "history/index/ShardedEntries.h"

namespace quillmark::SnapshotIndex {
namespace {

// More would share the memory's bandwidth, and hold more in memory at a time.
constexpr int helperCount = 3;

// Outlives the call for a helper whose turn comes when nothing is left.
struct Shards {
  Shards(Dispatch& dispatch, FunctionRef<void(std::size_t)> shardWork) : work(shardWork), underWay(dispatch) {
    for (std::size_t i = 0; i < shardCount; ++i) underWay.enter();
  }
  void takeWhatIsLeft() noexcept {
    for (std::size_t shard; (shard = next.fetch_add(1)) < shardCount;) {
      work(shard);
      underWay.leave();
    }
  }

  const FunctionRef<void(std::size_t)> work;  // of the caller, who waits until all shards are done
  std::atomic<std::size_t> next = 0;
  Group underWay;
};

}  // namespace

void forEachShard(Dispatch& dispatch, QualityOfService qualityOfService, FunctionRef<void(std::size_t)> work) {
  const auto shards = std::make_shared<Shards>(dispatch, work);
  const std::shared_ptr<Queue> helpers = dispatch.global(qualityOfService);
  for (int i = 0; i < helperCount; ++i) helpers->async([shards] { shards->takeWhatIsLeft(); });
  shards->takeWhatIsLeft();
  shards->underWay.wait();
}

}  // namespace quillmark::SnapshotIndex
