// ShardedEntries: a whole tree in memory, in 16 shards that are built and compared side by side. Records in tables, paths in
// arenas: no allocation of its own for an entry.
// Ownership: owns all; a view borrows from the tree and lives until the tree is changed or gone.
// Threads:   not locked: built by one owner (each bucket by one thread at a time), then only read, by anybody.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "base/FunctionRef.h"
#include "history/index/EntryItems.h"
#include "history/index/SnapshotIndex.h"
#include "history/index/TreeMemory.h"

namespace quillmark {

class Dispatch;

namespace SnapshotIndex {

inline constexpr std::size_t shardCount = 16;
// By the hash of the directory's path, so that what lies in one directory stays together. The same for all trees of one
// process; never stored.
[[nodiscard]] std::size_t shardOf(std::string_view path);
// Of all that lies in a directory; an empty one is the root.
[[nodiscard]] std::size_t shardOfDirectory(std::string_view directory);

// Entries on their way into a tree.
class EntryBucket final {
 public:
  EntryBucket() = default;
  EntryBucket(EntryBucket&&) noexcept = default;
  EntryBucket& operator=(EntryBucket&&) noexcept = default;
  // Of the paths only what follows the last slash counts.
  void reserve(std::size_t entries, std::size_t nameBytes) { items_.reserve(entries, nameBytes); }
  void append(const EntryView& entry);
  // With the path directory + "/" + name; an empty directory is the root.
  void append(std::string_view directory, std::string_view name, const Facts& facts) {
    items_.append(directory, "/", name, facts);
  }
  // Takes all entries of the other, which come after its own. Costs as good as nothing.
  void splice(EntryBucket&& other) { items_.splice(std::move(other.items_)); }
  [[nodiscard]] std::size_t size() const { return items_.count(); }

 private:
  friend class ShardedEntries;
  EntryItems items_;
};
using EntryBuckets = std::array<EntryBucket, shardCount>;
// Each into the bucket where its path belongs.
void append(EntryBuckets& buckets, const EntryView& entry);
void append(EntryBuckets& buckets, std::string_view directory, std::string_view name, const Facts& facts);
void splice(EntryBuckets& buckets, EntryBuckets&& others);

class TreeShard;

class ShardedEntries final {
 public:
  ShardedEntries();
  // Of buckets distributed by shardOf; of a path that occurs twice in a bucket the entry that came last stays. The shards
  // are built at the same time, on the dispatch's threads. Once isCancelled, which may be empty and is asked by several
  // threads, says so, shards are left out: the tree is of no use then.
  ShardedEntries(Dispatch& dispatch, EntryBuckets buckets, const std::function<bool()>& isCancelled = {});
  ~ShardedEntries();
  ShardedEntries(ShardedEntries&&) noexcept;
  ShardedEntries& operator=(ShardedEntries&&) noexcept;

  [[nodiscard]] std::size_t count() const;
  [[nodiscard]] bool isEmpty() const { return count() == 0; }
  [[nodiscard]] std::optional<EntryView> lookup(std::string_view path) const;
  void insert(const EntryView& entry);
  std::optional<Entry> remove(std::string_view path);
  // Shard 0 first, in no told order within a shard.
  void forEach(FunctionRef<void(const EntryView&)> visitor) const;
  // Ascending by path, over all shards.
  void forEachByPath(FunctionRef<void(const EntryView&)> visitor) const;
  [[nodiscard]] std::vector<Entry> allEntries() const;
  // The union of both trees, ascending by path; where both have a path, the other's entry.
  [[nodiscard]] std::vector<Entry> combined(const ShardedEntries& other) const;
  // What the tree occupies, arenas and tables.
  [[nodiscard]] std::size_t memoryBytes() const;
  // What was taken for the tree is given back when it goes. Null for one that nobody counts.
  void hold(std::shared_ptr<TreeClaim> claim) { claim_ = std::move(claim); }
  [[nodiscard]] const std::shared_ptr<TreeClaim>& claim() const { return claim_; }

  // A walk in ascending order of paths that can be asked for one entry after the other.
  class PathCursor;
  [[nodiscard]] std::unique_ptr<PathCursor> byPath() const;
  [[nodiscard]] const TreeShard& shard(std::size_t number) const { return *shards_[number]; }

 private:
  std::shared_ptr<TreeClaim> claim_;
  std::array<std::unique_ptr<TreeShard>, shardCount> shards_;
};

class ShardedEntries::PathCursor {
 public:
  virtual ~PathCursor() = default;
  // Nothing at the end.
  [[nodiscard]] virtual std::optional<EntryView> next() = 0;
};

}  // namespace SnapshotIndex
}  // namespace quillmark
