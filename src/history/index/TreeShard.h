// TreeShard: the entries of one shard, ascending by path. Records in a table, paths end to end in an arena; what was
// inserted since the tables were made stands in small ones of its own, until it is enough to make them anew.
// Ownership: owns all; views and rows are good until the shard is changed.
// Threads:   not locked; any number may read what nobody changes.
// Invariant: a path is at most in one of the tables.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "history/index/EntryItems.h"

namespace quillmark::SnapshotIndex {

class TreeShard final {
 public:
  // An entry's place.
  using Row = std::uint32_t;

  TreeShard() = default;
  explicit TreeShard(const EntryItems& items);

  [[nodiscard]] std::size_t count() const { return count_; }
  [[nodiscard]] std::size_t memoryBytes() const;
  [[nodiscard]] EntryView view(Row row) const { return tableOf(row).view(row & ~recentBit); }
  [[nodiscard]] std::string_view path(Row row) const { return tableOf(row).path(row & ~recentBit); }
  [[nodiscard]] Facts facts(Row row) const { return tableOf(row).facts(row & ~recentBit); }
  [[nodiscard]] std::optional<Row> find(std::string_view path) const;
  void insert(const EntryView& entry);
  std::optional<Entry> remove(std::string_view path);

  // A walk in ascending order of paths.
  class Cursor;

 private:
  class Table final {
   public:
    void reserve(std::size_t entries, std::size_t pathBytes);
    void append(const Facts& facts, std::string_view directory, std::string_view name);
    void replace(std::size_t at, const Facts& facts);
    void drop(std::size_t at) { records_[at].place &= ~typeMask; }
    [[nodiscard]] bool isDropped(std::size_t at) const { return records_[at].type() == 0; }
    [[nodiscard]] std::size_t size() const { return records_.size(); }
    [[nodiscard]] std::string_view path(std::size_t at) const {
      return {paths_.data() + records_[at].pathOffset(), records_[at].pathLength()};
    }
    [[nodiscard]] Facts facts(std::size_t at) const {
      const Record& record = records_[at];
      return {static_cast<EntryType>(record.type()),
              record.inode,
              record.parentInode,
              record.size,
              record.mtimeNS,
              record.metaBits,
              record.generation};
    }
    [[nodiscard]] EntryView view(std::size_t at) const { return {facts(at), path(at)}; }
    [[nodiscard]] std::size_t memoryBytes() const {
      return records_.capacity() * sizeof(Record) + paths_.capacity() * sizeof(char);
    }

   private:
    static constexpr unsigned typeBits = 3, lengthBits = 26;
    static constexpr std::uint64_t typeMask = (1u << typeBits) - 1, lengthMask = (1u << lengthBits) - 1;
    // The path's offset, its length and the type (0: dropped) in one word, which is written as a whole: with bit fields
    // fresh memory would be read before it is written, and mapped twice.
    struct Record {
      std::uint64_t inode, parentInode;
      std::int64_t size, mtimeNS, metaBits, generation;
      std::uint64_t place;

      [[nodiscard]] std::uint64_t type() const { return place & typeMask; }
      [[nodiscard]] std::size_t pathLength() const { return place >> typeBits & lengthMask; }
      [[nodiscard]] std::size_t pathOffset() const { return place >> (typeBits + lengthBits); }
    };
    static Record recordOf(const Facts& facts, std::size_t pathOffset, std::size_t pathLength);
    std::vector<Record> records_;
    std::vector<char> paths_;
  };

  static constexpr Row recentBit = Row{1} << 31;
  [[nodiscard]] const Table& tableOf(Row row) const { return row & recentBit ? recent_ : settled_; }
  [[nodiscard]] std::size_t settledBound(std::string_view path) const;
  [[nodiscard]] std::size_t recentBound(std::string_view path) const;
  void settle();

  Table settled_;  // in the order of paths
  Table recent_;
  std::vector<Row> recentOrder_;  // rows of recent_ by path
  std::size_t count_ = 0;
  std::size_t pathBytes_ = 0;
};

class TreeShard::Cursor final {
 public:
  // Stands on the first entry.
  explicit Cursor(const TreeShard& shard) : shard_(&shard) { choose(); }

  [[nodiscard]] bool atEnd() const { return atEnd_; }
  // Not at the end.
  [[nodiscard]] Row row() const { return row_; }
  [[nodiscard]] std::string_view path() const { return path_; }
  void advance() {
    if (row_ & recentBit) {
      ++recentAt_;
    } else {
      ++settledAt_;
    }
    choose();
  }

 private:
  void choose();

  const TreeShard* shard_;
  std::size_t settledAt_ = 0;
  std::size_t recentAt_ = 0;
  bool atEnd_ = false;
  Row row_ = 0;
  std::string_view path_;
};

inline void TreeShard::Cursor::choose() {
  const Table& settled = shard_->settled_;
  while (settledAt_ < settled.size() && settled.isDropped(settledAt_)) ++settledAt_;
  const bool hasSettled = settledAt_ < settled.size();
  if (hasSettled) {
    row_ = static_cast<Row>(settledAt_);
    path_ = settled.path(settledAt_);
  }
  if (recentAt_ < shard_->recentOrder_.size()) {
    const Row recent = shard_->recentOrder_[recentAt_];
    const std::string_view path = shard_->path(recent);
    if (hasSettled && path_ < path) return;
    row_ = recent;
    path_ = path;
  } else {
    atEnd_ = !hasSettled;
  }
}

}  // namespace quillmark::SnapshotIndex
