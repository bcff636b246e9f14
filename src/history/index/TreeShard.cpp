#include "history/index/TreeShard.h"

#include <algorithm>

namespace quillmark::SnapshotIndex {
namespace {

// Few enough that a place among them is cheaply made, many enough that making the tables anew is rare.
constexpr std::size_t mostRecent = 4096;
// How many entries ahead memory is asked for while items are put in order.
constexpr std::size_t lookAhead = 8;

}  // namespace

void TreeShard::Table::reserve(std::size_t entries, std::size_t pathBytes) {
  records_.reserve(entries);
  paths_.reserve(pathBytes);
}

TreeShard::Table::Record TreeShard::Table::recordOf(const Facts& facts, std::size_t pathOffset,
                                                    std::size_t pathLength) {
  const std::uint64_t place =
      (pathOffset << lengthBits | pathLength) << typeBits | static_cast<std::uint64_t>(facts.type);
  return {facts.inode, facts.parentInode, facts.size, facts.mtimeNS, facts.metaBits, facts.generation, place};
}

void TreeShard::Table::append(const Facts& facts, std::string_view directory, std::string_view name) {
  records_.push_back(recordOf(facts, paths_.size(), directory.size() + name.size()));
  paths_.insert(paths_.end(), directory.begin(), directory.end());
  paths_.insert(paths_.end(), name.begin(), name.end());
}

void TreeShard::Table::replace(std::size_t at, const Facts& facts) {
  Record& record = records_[at];
  record = recordOf(facts, record.pathOffset(), record.pathLength());
}

TreeShard::TreeShard(const EntryItems& items) {
  const std::vector<const EntryItem*> ordered = inPathOrder(items);
  count_ = ordered.size();
  for (const EntryItem* item : ordered) pathBytes_ += item->pathLength();
  settled_.reserve(count_, pathBytes_);
  for (std::size_t i = 0; i < count_; ++i) {
    if (i + lookAhead < count_) __builtin_prefetch(ordered[i + lookAhead]);
    settled_.append(ordered[i]->facts(), ordered[i]->directory->text(), ordered[i]->name());
  }
}

std::size_t TreeShard::memoryBytes() const {
  return sizeof(*this) + settled_.memoryBytes() + recent_.memoryBytes() + recentOrder_.capacity() * sizeof(Row);
}

std::size_t TreeShard::settledBound(std::string_view path) const {
  std::size_t from = 0, to = settled_.size();
  while (from < to) {
    const std::size_t middle = from + (to - from) / 2;
    if (settled_.path(middle) < path) {
      from = middle + 1;
    } else {
      to = middle;
    }
  }
  return from;
}

std::size_t TreeShard::recentBound(std::string_view path) const {
  const auto found = std::lower_bound(recentOrder_.begin(), recentOrder_.end(), path,
                                      [&](Row row, std::string_view wanted) { return this->path(row) < wanted; });
  return static_cast<std::size_t>(found - recentOrder_.begin());
}

std::optional<TreeShard::Row> TreeShard::find(std::string_view path) const {
  const std::size_t settled = settledBound(path);
  if (settled < settled_.size() && settled_.path(settled) == path) {
    if (settled_.isDropped(settled)) return std::nullopt;
    return static_cast<Row>(settled);
  }
  const std::size_t recent = recentBound(path);
  if (recent < recentOrder_.size() && this->path(recentOrder_[recent]) == path) return recentOrder_[recent];
  return std::nullopt;
}

void TreeShard::insert(const EntryView& entry) {
  const std::size_t settled = settledBound(entry.path);
  if (settled < settled_.size() && settled_.path(settled) == entry.path) {
    if (settled_.isDropped(settled)) {
      ++count_;
      pathBytes_ += entry.path.size();
    }
    settled_.replace(settled, entry);
    return;
  }
  const std::size_t recent = recentBound(entry.path);
  if (recent < recentOrder_.size() && path(recentOrder_[recent]) == entry.path) {
    recent_.replace(recentOrder_[recent] & ~recentBit, entry);
    return;
  }
  recentOrder_.insert(recentOrder_.begin() + static_cast<std::ptrdiff_t>(recent),
                      static_cast<Row>(recent_.size()) | recentBit);
  recent_.append(entry, entry.path, {});
  ++count_;
  pathBytes_ += entry.path.size();
  if (recent_.size() >= mostRecent) settle();
}

std::optional<Entry> TreeShard::remove(std::string_view path) {
  const std::optional<Row> row = find(path);
  if (!row) return std::nullopt;
  Entry removed(view(*row));
  if (*row & recentBit) {
    recentOrder_.erase(recentOrder_.begin() + static_cast<std::ptrdiff_t>(recentBound(path)));
  } else {
    settled_.drop(*row);
  }
  --count_;
  pathBytes_ -= removed.path.size();
  return removed;
}

void TreeShard::settle() {
  Table all;
  all.reserve(count_, pathBytes_);
  for (Cursor at(*this); !at.atEnd(); at.advance()) all.append(facts(at.row()), at.path(), {});
  settled_ = std::move(all);
  recent_ = {};
  recentOrder_ = {};
}

}  // namespace quillmark::SnapshotIndex
