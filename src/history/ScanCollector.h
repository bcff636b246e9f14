// ScanCollector: the one place where what was read of a tree becomes its entries, whichever way it was read. Applies the
// exclusions, leaves out the service's own place, counts and tells how far the walk is.
// Ownership: borrows the request and the counts of what isn't read.
// Threads:   thread-safe; each thread hands in through entries of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "history/ScanStats.h"
#include "history/SnapshotScanner.h"
#include "history/index/ShardedEntries.h"
#include "history/index/TreeMemory.h"
#include "platform/FileFacts.h"

namespace quillmark {

// A directory whose entries are handed in.
struct ScanParent {
  ScanParent(std::string_view itsPath, std::uint64_t itsInode)
      : path(itsPath), inode(itsInode), shard(SnapshotIndex::shardOfDirectory(itsPath)) {}

  std::string_view path;  // within the tree, empty for its root
  std::uint64_t inode;
  std::size_t shard;  // where its entries belong
};

class ScanCollector final {
 public:
  // What one thread handed in.
  struct Entries {
    SnapshotIndex::EntryBuckets buckets;
    std::uint64_t uncounted = 0;
    std::uint64_t uncountedBytes = 0;  // that they take in a tree
  };

  // A directory whose path is longer isn't entered, and counts as denied: anybody can nest directories without end, and
  // each entry below would take that much memory.
  static constexpr std::size_t longestPath = 4'095;

  // The walk is to end once the memory has no room for its entries, or for what it takes beside them.
  ScanCollector(const ScanRequest& request, std::string ownPlace, const std::shared_ptr<TreeMemory>& memory,
                ScanStats& stats)
      : request_(request), stats_(stats), ownPlace_(std::move(ownPlace)), claim_(std::make_shared<TreeClaim>(memory)),
        working_(memory) {}

  // The root's own entry, for which the count starts at 1.
  static void takeRoot(SnapshotIndex::EntryBuckets& into, const FileFacts& facts);
  // True for a directory whose own entries are wanted.
  [[nodiscard]] bool take(Entries& into, const ScanParent& parent, std::string_view name, const FileFacts& facts);
  // Adds what was handed in since the last time to the count.
  void count(Entries& entries);
  // So many more were read, and are handed in later: that is told already now. They take so much until then.
  void countAhead(std::uint64_t entries, std::uint64_t bytes);

  // Of what was counted; the tree's from now on.
  [[nodiscard]] std::shared_ptr<TreeClaim> claim() const { return claim_; }
  // For what the walk takes beside its entries, which is given back at its end.
  [[nodiscard]] TreeClaim& working() { return working_; }

  [[nodiscard]] std::uint64_t processed() const { return processed_; }
  [[nodiscard]] bool isTooLarge() const { return claim_->isRefused() || working_.isRefused(); }
  [[nodiscard]] bool isCancelled() const { return isTooLarge() || (request_.isCancelled && request_.isCancelled()); }

 private:
  void tell(std::uint64_t before, std::uint64_t after) const;
  [[nodiscard]] bool isExcluded(std::string_view parent, std::string_view name) const;

  const ScanRequest& request_;
  ScanStats& stats_;
  const std::string ownPlace_;
  std::atomic<std::uint64_t> processed_{1};
  std::atomic<std::uint64_t> ahead_{1};
  const std::shared_ptr<TreeClaim> claim_;
  TreeClaim working_;
};

}  // namespace quillmark
