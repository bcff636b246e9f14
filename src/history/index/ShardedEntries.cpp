#include "history/index/ShardedEntries.h"

#include <algorithm>
#include <cstring>

#include "history/index/EachShard.h"
#include "history/index/TreeShard.h"

namespace quillmark::SnapshotIndex {
namespace {

using ShardCursor = TreeShard::Cursor;

std::uint64_t hashOf(std::string_view text) {
  std::uint64_t hash = 0;
  constexpr std::uint64_t multiplier = 0x9e3779b97f4a7c15;  // odd, its bits as good as random
  const auto mix = [&](std::uint64_t word) {
    hash = (hash ^ word) * multiplier;
    hash ^= hash >> 32;
  };
  std::uint64_t word = 0;
  for (; text.size() >= sizeof(word); text.remove_prefix(sizeof(word))) {
    std::memcpy(&word, text.data(), sizeof(word));
    mix(word);
  }
  word = 0;
  if (!text.empty()) std::memcpy(&word, text.data(), text.size());
  mix(word ^ std::uint64_t{text.size()} << 56);
  return hash;
}

// Where the last component begins.
std::size_t nameAt(std::string_view path) {
  const void* slash = path.empty() ? nullptr : ::memrchr(path.data(), '/', path.size());
  return slash ? static_cast<std::size_t>(static_cast<const char*>(slash) - path.data()) + 1 : 0;
}

// All shards as one: those that have entries left, as a heap with the smallest path on top.
class MergingCursor final : public ShardedEntries::PathCursor {
 public:
  explicit MergingCursor(const ShardedEntries& tree) : tree_(tree) {
    for (std::size_t i = 0; i < shardCount; ++i) {
      if (Source source{ShardCursor(tree.shard(i)), i}; !source.at.atEnd()) heap_.push_back(source);
    }
    std::make_heap(heap_.begin(), heap_.end(), isAfter);
  }

  [[nodiscard]] std::optional<EntryView> next() override {
    if (heap_.empty()) return std::nullopt;
    Source& first = heap_.front();
    const EntryView entry = tree_.shard(first.shard).view(first.at.row());
    first.at.advance();
    if (first.at.atEnd()) {
      std::swap(first, heap_.back());
      heap_.pop_back();
    }
    sink();
    return entry;
  }

 private:
  struct Source {
    ShardCursor at;
    std::size_t shard;
  };
  static bool isAfter(const Source& a, const Source& b) { return a.at.path() > b.at.path(); }

  // The top finds its place again.
  void sink() {
    for (std::size_t at = 0;;) {
      std::size_t child = 2 * at + 1;
      if (child >= heap_.size()) return;
      if (child + 1 < heap_.size() && isAfter(heap_[child], heap_[child + 1])) ++child;
      if (!isAfter(heap_[at], heap_[child])) return;
      std::swap(heap_[at], heap_[child]);
      at = child;
    }
  }

  const ShardedEntries& tree_;
  std::vector<Source> heap_;
};

}  // namespace

std::size_t shardOf(std::string_view path) {
  return shardOfDirectory(path.substr(0, std::max<std::size_t>(nameAt(path), 1) - 1));
}

std::size_t shardOfDirectory(std::string_view directory) { return hashOf(directory) % shardCount; }

void EntryBucket::append(const EntryView& entry) {
  const std::size_t at = nameAt(entry.path);
  items_.append(entry.path.substr(0, at), {}, entry.path.substr(at), entry);
}

void append(EntryBuckets& buckets, const EntryView& entry) { buckets[shardOf(entry.path)].append(entry); }

void append(EntryBuckets& buckets, std::string_view directory, std::string_view name, const Facts& facts) {
  buckets[shardOfDirectory(directory)].append(directory, name, facts);
}

void splice(EntryBuckets& buckets, EntryBuckets&& others) {
  for (std::size_t i = 0; i < shardCount; ++i) buckets[i].splice(std::move(others[i]));
}

ShardedEntries::ShardedEntries() {
  for (auto& shard : shards_) shard = std::make_unique<TreeShard>();
}

ShardedEntries::ShardedEntries(Dispatch& dispatch, EntryBuckets buckets, const std::function<bool()>& isCancelled) {
  forEachShard(dispatch, QualityOfService::utility, [&](std::size_t i) {
    const EntryItems items(std::move(buckets[i].items_));
    shards_[i] = isCancelled && isCancelled() ? std::make_unique<TreeShard>() : std::make_unique<TreeShard>(items);
  });
}

ShardedEntries::~ShardedEntries() = default;
ShardedEntries::ShardedEntries(ShardedEntries&&) noexcept = default;
ShardedEntries& ShardedEntries::operator=(ShardedEntries&&) noexcept = default;

std::size_t ShardedEntries::count() const {
  std::size_t count = 0;
  for (const auto& shard : shards_) count += shard->count();
  return count;
}

std::optional<EntryView> ShardedEntries::lookup(std::string_view path) const {
  const TreeShard& shard = *shards_[shardOf(path)];
  const auto row = shard.find(path);
  if (!row) return std::nullopt;
  return shard.view(*row);
}

void ShardedEntries::insert(const EntryView& entry) { shards_[shardOf(entry.path)]->insert(entry); }

std::optional<Entry> ShardedEntries::remove(std::string_view path) { return shards_[shardOf(path)]->remove(path); }

void ShardedEntries::forEach(FunctionRef<void(const EntryView&)> visitor) const {
  for (const auto& shard : shards_) {
    for (ShardCursor at(*shard); !at.atEnd(); at.advance()) visitor(shard->view(at.row()));
  }
}

void ShardedEntries::forEachByPath(FunctionRef<void(const EntryView&)> visitor) const {
  MergingCursor at(*this);
  while (const auto entry = at.next()) visitor(*entry);
}

std::vector<Entry> ShardedEntries::allEntries() const {
  std::vector<Entry> all;
  all.reserve(count());
  forEach([&](const EntryView& entry) { all.emplace_back(entry); });
  return all;
}

std::vector<Entry> ShardedEntries::combined(const ShardedEntries& other) const {
  std::vector<Entry> all;
  all.reserve(std::max(count(), other.count()));
  MergingCursor ours(*this), theirs(other);
  auto our = ours.next(), their = theirs.next();
  while (our || their) {
    const int order = !our ? 1 : !their ? -1 : our->path.compare(their->path);
    all.emplace_back(order < 0 ? *our : *their);
    if (order <= 0) our = ours.next();
    if (order >= 0) their = theirs.next();
  }
  return all;
}

std::size_t ShardedEntries::memoryBytes() const {
  std::size_t bytes = sizeof(*this);
  for (const auto& shard : shards_) bytes += shard->memoryBytes();
  return bytes;
}

std::unique_ptr<ShardedEntries::PathCursor> ShardedEntries::byPath() const {
  return std::make_unique<MergingCursor>(*this);
}

}  // namespace quillmark::SnapshotIndex
