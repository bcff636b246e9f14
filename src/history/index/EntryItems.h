// EntryItems: entries on their way into a tree, in the order in which they came. The path of a directory is kept once for
// the entries of it that come one after the other.
// Ownership: owns all; pointers to items are good as long as the items, also when those are spliced or moved elsewhere.
// Threads:   thread-compatible.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "history/index/SnapshotIndex.h"

namespace quillmark::SnapshotIndex {

// What a path has before its last component, the slash included.
struct ItemDirectory {
  std::uint32_t length;
  char begin[4];  // goes on behind

  [[nodiscard]] std::string_view text() const {
    return {reinterpret_cast<const char*>(this) + offsetof(ItemDirectory, begin), length};
  }
};

struct EntryItem {
  std::uint64_t inode, parentInode;
  std::int64_t size, mtimeNS, metaBits, generation;
  const ItemDirectory* directory;
  std::uint32_t type : 3, nameLength : 29;
  char nameBegin[4];  // goes on behind

  [[nodiscard]] std::string_view name() const {
    return {reinterpret_cast<const char*>(this) + offsetof(EntryItem, nameBegin), nameLength};
  }
  [[nodiscard]] std::size_t pathLength() const { return directory->length + nameLength; }
  [[nodiscard]] Facts facts() const {
    return {static_cast<EntryType>(type), inode, parentInode, size, mtimeNS, metaBits, generation};
  }
};

class EntryItems final {
 public:
  EntryItems() = default;
  EntryItems(EntryItems&& other) noexcept { splice(std::move(other)); }
  EntryItems& operator=(EntryItems&& other) noexcept;

  void reserve(std::size_t entries, std::size_t nameBytes);
  // With the path directory + slash + name, where slash is "/" or, with a directory that ends in one or is empty, nothing.
  void append(std::string_view directory, std::string_view slash, std::string_view name, const Facts& facts);
  // Takes all of the other behind its own.
  void splice(EntryItems&& other);
  [[nodiscard]] std::size_t count() const { return count_; }
  [[nodiscard]] std::vector<const EntryItem*> list() const;

 private:
  // Memory that is given in pieces and given back as a whole.
  class Blocks final {
   public:
    [[nodiscard]] std::byte* take(std::size_t size);
    void add(std::size_t room);
    void splice(Blocks&& other);

    struct Block {
      std::unique_ptr<std::byte[]> bytes;
      std::size_t used, room;
    };
    [[nodiscard]] const std::vector<Block>& all() const { return all_; }

   private:
    std::vector<Block> all_;
  };

  Blocks items_;
  Blocks directories_;
  const ItemDirectory* latest_ = nullptr;
  std::size_t count_ = 0;
};

// The items by ascending path; of one path only the one that came last. Quick when the entries of a directory come one
// after the other, whatever the order of directories and of names.
[[nodiscard]] std::vector<const EntryItem*> inPathOrder(const EntryItems& items);

}  // namespace quillmark::SnapshotIndex
