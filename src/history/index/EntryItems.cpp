#include "history/index/EntryItems.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

namespace quillmark::SnapshotIndex {
namespace {

// A bucket of few entries is small, one of many has few blocks.
constexpr std::size_t smallestBlock = 2 * 1024;
constexpr std::size_t largestBlock = 1024 * 1024;
// What a record of the tree can say.
constexpr std::size_t longestPath = std::size_t{1} << 26;
// How far ahead memory is asked for in a walk.
constexpr std::size_t lookAhead = 1024;

constexpr std::size_t aligned(std::size_t size) { return (size + 7) & ~std::size_t{7}; }
constexpr std::size_t itemExtent(std::size_t nameLength) {
  return std::max(aligned(offsetof(EntryItem, nameBegin) + nameLength), sizeof(EntryItem));
}
constexpr std::size_t directoryExtent(std::size_t length) {
  return std::max(aligned(offsetof(ItemDirectory, begin) + length), sizeof(ItemDirectory));
}

char* put(char* to, std::string_view text) {
  if (!text.empty()) std::memcpy(to, text.data(), text.size());
  return to + text.size();
}

}  // namespace

// ---- Blocks

void EntryItems::Blocks::add(std::size_t room) {
  all_.push_back({std::make_unique_for_overwrite<std::byte[]>(room), 0, room});
}

std::byte* EntryItems::Blocks::take(std::size_t size) {
  if (all_.empty() || all_.back().room - all_.back().used < size) {
    const std::size_t usual = all_.empty() ? smallestBlock : std::min(all_.back().room * 2, largestBlock);
    add(std::max(usual, size));
  }
  Block& block = all_.back();
  return block.bytes.get() + std::exchange(block.used, block.used + size);
}

void EntryItems::Blocks::splice(Blocks&& other) {
  if (all_.empty()) {
    all_ = std::move(other.all_);
  } else {
    all_.insert(all_.end(), std::make_move_iterator(other.all_.begin()), std::make_move_iterator(other.all_.end()));
  }
  other.all_.clear();
}

// ---- EntryItems

EntryItems& EntryItems::operator=(EntryItems&& other) noexcept {
  if (this == &other) return *this;
  items_ = {};
  directories_ = {};
  latest_ = nullptr;
  count_ = 0;
  splice(std::move(other));
  return *this;
}

void EntryItems::reserve(std::size_t entries, std::size_t nameBytes) {
  if (entries > 0) items_.add(entries * (itemExtent(0) + 8) + nameBytes);
}

void EntryItems::append(std::string_view directory, std::string_view slash, std::string_view name, const Facts& facts) {
  const std::size_t directoryLength = directory.size() + slash.size();
  if (directoryLength + name.size() >= longestPath) std::abort();
  if (!latest_ || latest_->length != directoryLength || !latest_->text().starts_with(directory)) {
    std::byte* room = directories_.take(directoryExtent(directoryLength));
    auto* made = new (room) ItemDirectory{static_cast<std::uint32_t>(directoryLength), {}};
    put(put(reinterpret_cast<char*>(room) + offsetof(ItemDirectory, begin), directory), slash);
    latest_ = made;
  }
  std::byte* room = items_.take(itemExtent(name.size()));
  new (room) EntryItem{facts.inode,
                       facts.parentInode,
                       facts.size,
                       facts.mtimeNS,
                       facts.metaBits,
                       facts.generation,
                       latest_,
                       static_cast<std::uint32_t>(facts.type),
                       static_cast<std::uint32_t>(name.size()),
                       {}};
  put(reinterpret_cast<char*>(room) + offsetof(EntryItem, nameBegin), name);
  ++count_;
}

void EntryItems::splice(EntryItems&& other) {
  items_.splice(std::move(other.items_));
  directories_.splice(std::move(other.directories_));
  latest_ = nullptr;
  other.latest_ = nullptr;
  count_ += std::exchange(other.count_, 0);
}

std::vector<const EntryItem*> EntryItems::list() const {
  std::vector<const EntryItem*> items;
  items.reserve(count_);
  for (const auto& block : items_.all()) {
    for (std::size_t at = 0; at < block.used;) {
      const auto* item = std::launder(reinterpret_cast<const EntryItem*>(block.bytes.get() + at));
      __builtin_prefetch(block.bytes.get() + std::min(at + lookAhead, block.used));
      items.push_back(item);
      at += itemExtent(item->nameLength);
    }
  }
  return items;
}

}  // namespace quillmark::SnapshotIndex
