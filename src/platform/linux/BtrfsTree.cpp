#include "platform/linux/BtrfsTree.h"

#include <endian.h>
#include <linux/btrfs_tree.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/linux/TreeFacts.h"

namespace quillmark::os {
namespace {

constexpr std::uint64_t lastFreeInode = BTRFS_LAST_FREE_OBJECTID;
// Pieces small enough that the last one of a thread keeps nobody waiting, and that numbers which lie close together in a
// wide range are still shared out.
constexpr std::uint64_t leastSpan = 1024;
constexpr std::uint64_t mostPieces = 1024;
constexpr std::size_t usualNameLength = 20;

template <class Value>
Value valueAt(std::span<const std::byte> item, std::size_t offset) {
  Value value;
  std::memcpy(&value, item.data() + offset, sizeof value);
  return value;
}

std::chrono::nanoseconds timeOf(clockid_t clock) {
  timespec time{};
  ::clock_gettime(clock, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

std::string_view bytesOf(std::span<const std::byte> item, std::size_t offset, std::size_t length) {
  return {reinterpret_cast<const char*>(item.data()) + offset, length};
}

SysResult<std::uint64_t> lastInodeOf(int root) {
  btrfs::TreeSearch search(btrfs::TreeSearch::smallBuffer);
  std::uint64_t low = btrfs::rootInode, high = lastFreeInode;
  while (low < high) {
    const std::uint64_t middle = low + (high - low + 1) / 2;
    const auto found = search.firstKey(root, 0, {middle, 0, 0}, {high, 255, ~0ull});
    if (!found && found.error() != ENOENT) return Errno{found.error()};
    if (found) {
      low = found->objectId;
    } else {
      high = middle - 1;
    }
  }
  return low;
}

// A read that ended within a directory's list goes on behind the directory, and as directories often lie side by side, with
// just enough to come upon another one.
constexpr std::uint32_t fewItems = 8;
constexpr std::uint32_t manyItems = 512;

bool isOfList(const btrfs::TreeKey& key) { return key.type == BTRFS_DIR_ITEM_KEY || key.type == BTRFS_DIR_INDEX_KEY; }

}  // namespace

// Items of one inode come together, its INODE_ITEM first.
class BtrfsTree::PieceBuilder final {
 public:
  // For so many objects, as far as that can be known.
  explicit PieceBuilder(std::size_t objects) {
    piece_.objects.reserve(objects);
    piece_.links.reserve(objects);
    piece_.names.reserve(objects * usualNameLength);
  }
  // False for an item that makes no sense.
  bool take(const btrfs::TreeKey& key, std::span<const std::byte> item) {
    switch (key.type) {
      case BTRFS_INODE_ITEM_KEY: return takeInode(key.objectId, item);
      case BTRFS_INODE_REF_KEY: return takeNames(key, item);
      case BTRFS_INODE_EXTREF_KEY: return takeMoreNames(key, item);
      case BTRFS_DIR_INDEX_KEY: return takeDirectoryEntry(key, item);
      case BTRFS_EXTENT_DATA_KEY: return takeExtent(key, item);
      default: return true;
    }
  }
  // Where to go on behind an item. Nobody needs the rest of a directory's list, unless it has nested subvolumes: all else
  // is named by itself.
  btrfs::TreeSearch::Step goOnBehind(const btrfs::TreeKey& key) {
    if (!isOfList(key)) {
      most_ = most_ < manyItems ? most_ * 4 : btrfs::TreeSearch::allItems;
      return {btrfs::TreeSearch::behind(key).from, most_};
    }
    const btrfs::TreeKey indexes{key.objectId, BTRFS_DIR_INDEX_KEY, 0};
    lists_.push_back({key.type == BTRFS_DIR_INDEX_KEY ? btrfs::TreeSearch::behind(key).from : indexes,
                      key.objectId == number_ ? static_cast<std::uint64_t>(piece_.objects[object_].size) : ~0ull});
    most_ = fewItems;
    return {{key.objectId + 1, 0, 0}, most_};
  }
  TreePiece& piece() { return piece_; }
  const std::vector<MetNames>& met() const { return met_; }
  const std::vector<CutList>& lists() const { return lists_; }

 private:
  bool takeInode(std::uint64_t number, std::span<const std::byte> bytes) {
    btrfs_inode_item item;
    if (bytes.size() < sizeof item) return false;
    std::memcpy(&item, bytes.data(), sizeof item);
    number_ = number;
    object_ = piece_.objects.size();
    piece_.objects.push_back(factsOf(number, item));
    FileFacts& facts = piece_.objects.back();
    if (facts.type == FileType::regular && facts.size > 0) facts.generation = witnessOfHoles;
    if (facts.type == FileType::directory) {
      piece_.directories.push_back({number, static_cast<std::uint32_t>(object_)});
    }
    return true;
  }

  bool takeNames(const btrfs::TreeKey& key, std::span<const std::byte> item) {
    // The root names itself.
    if (key.objectId == btrfs::rootInode) return true;
    if (key.objectId != number_) return false;
    for (std::size_t at = 0; at < item.size();) {
      if (item.size() - at < sizeof(btrfs_inode_ref)) return false;
      const std::size_t length = le16toh(valueAt<std::uint16_t>(item, at + offsetof(btrfs_inode_ref, name_len)));
      at += sizeof(btrfs_inode_ref);
      if (item.size() - at < length) return false;
      if (!addLink(key.offset, object_, bytesOf(item, at, length))) return false;
      at += length;
    }
    return true;
  }

  bool takeMoreNames(const btrfs::TreeKey& key, std::span<const std::byte> item) {
    if (key.objectId != number_) return false;
    for (std::size_t at = 0; at < item.size();) {
      if (item.size() - at < sizeof(btrfs_inode_extref)) return false;
      const std::uint64_t parent =
          le64toh(valueAt<std::uint64_t>(item, at + offsetof(btrfs_inode_extref, parent_objectid)));
      const std::size_t length = le16toh(valueAt<std::uint16_t>(item, at + offsetof(btrfs_inode_extref, name_len)));
      at += sizeof(btrfs_inode_extref);
      if (item.size() - at < length) return false;
      if (!addLink(parent, object_, bytesOf(item, at, length))) return false;
      at += length;
    }
    return true;
  }

  // Of directories' own lists only nested subvolumes are of use: they have no inode here.
  bool takeDirectoryEntry(const btrfs::TreeKey& key, std::span<const std::byte> item) {
    if (item.size() < sizeof(btrfs_dir_item)) return false;
    if (std::to_integer<unsigned>(item[offsetof(btrfs_dir_item, location.type)]) != BTRFS_ROOT_ITEM_KEY) return true;
    const std::size_t length = le16toh(valueAt<std::uint16_t>(item, offsetof(btrfs_dir_item, name_len)));
    if (item.size() - sizeof(btrfs_dir_item) < length) return false;
    piece_.objects.push_back(placeholderFacts(FileType::directory));
    return addLink(key.objectId, piece_.objects.size() - 1, bytesOf(item, sizeof(btrfs_dir_item), length));
  }

  bool takeExtent(const btrfs::TreeKey& key, std::span<const std::byte> item) {
    if (key.objectId != number_ || item.size() < sizeof(std::uint64_t)) return false;
    FileFacts& facts = piece_.objects[object_];
    // What was reserved for an empty file is no content.
    const bool hasContent = facts.type == FileType::regular && facts.size > 0;
    if (hasContent) facts.generation = withExtent(facts.generation, facts.size, key.offset, item);
    return true;
  }

  // A damaged or hostile disk may bear names that would lead elsewhere.
  bool addLink(std::uint64_t parent, std::size_t object, std::string_view name) {
    const bool leadsElsewhere = name.empty() || std::memchr(name.data(), '/', name.size()) ||
                                std::memchr(name.data(), '\0', name.size()) || name == "." || name == "..";
    if (leadsElsewhere) return false;
    const std::size_t offset = piece_.names.size();
    if (offset > UINT32_MAX) return false;
    if (met_.empty() || met_.back().directory != parent) met_.push_back({.directory = parent});
    met_.back().bytes += name.size();
    const std::size_t length = appendNameText(piece_.names, name);
    piece_.links.push_back({parent, static_cast<std::uint32_t>(object), static_cast<std::uint32_t>(offset),
                            static_cast<std::uint16_t>(length)});
    return true;
  }

  TreePiece piece_;
  std::vector<MetNames> met_;
  std::vector<CutList> lists_;
  std::uint64_t number_ = 0;  // of the inode whose items come
  std::size_t object_ = 0;
  std::uint32_t most_ = manyItems;
};

SysResult<std::unique_ptr<WholeTree>> BtrfsTree::open(int root) {
  const auto subvolume = btrfs::subvolumeOf(root);
  if (!subvolume) return Errno{subvolume.error() == ENOTTY ? ENOTSUP : subvolume.error()};
  if (!subvolume->readOnly) return Errno{ENOTSUP};
  // A snapshot that was never written to has been on disk since it was made.
  const bool isUntouched = !subvolume->parentUuid.isNil() && subvolume->lastChange <= subvolume->otransid;
  if (!isUntouched && ::syncfs(root) != 0) return Errno{errno};
  const auto last = lastInodeOf(root);
  if (!last) return Errno{last.error()};
  const auto synced = btrfs::subvolumeOf(root);
  if (!synced) return Errno{synced.error()};
  if (!synced->readOnly) return Errno{ENOTSUP};
  return std::unique_ptr<WholeTree>(new BtrfsTree(root, *synced, *last));
}

BtrfsTree::BtrfsTree(int root, btrfs::Subvolume subvolume, std::uint64_t lastInode)
    : root_(root), subvolume_(subvolume),
      pieceCount_(std::clamp<std::uint64_t>((lastInode - btrfs::rootInode) / leastSpan, 1, mostPieces)),
      pieceSpan_((lastInode - btrfs::rootInode) / pieceCount_ + 1) {}

SysResult<TreePiece> BtrfsTree::read(std::size_t piece, FunctionRef<bool()> shouldStop) {
  const auto began = timeOf(CLOCK_MONOTONIC), beganWork = timeOf(CLOCK_THREAD_CPUTIME_ID);
  const std::uint64_t first = btrfs::rootInode + piece * pieceSpan_;
  // Whatever lies past the last one that was seen isn't left out.
  const std::uint64_t last = piece + 1 == pieceCount_ ? lastFreeInode : first + pieceSpan_ - 1;
  // Numbers that lie far apart tell nothing of how many there are.
  PieceBuilder builder(std::min<std::uint64_t>(pieceSpan_, 8 * leastSpan));
  const SysStatus status = readItems({{first, 0, 0}, manyItems}, {last, 255, ~0ull}, builder, shouldStop,
                                     [&](const btrfs::TreeKey& key) { return builder.goOnBehind(key); });
  if (!status) return Errno{status.error()};
  note(builder.met(), builder.lists());
  builder.piece().took = timeOf(CLOCK_MONOTONIC) - began;
  builder.piece().worked = timeOf(CLOCK_THREAD_CPUTIME_ID) - beganWork;
  return std::move(builder.piece());
}

SysStatus BtrfsTree::readItems(const btrfs::TreeSearch::Step& first, btrfs::TreeKey last, PieceBuilder& builder,
                               FunctionRef<bool()> shouldStop,
                               FunctionRef<btrfs::TreeSearch::Step(const btrfs::TreeKey&)> goOn) {
  std::unique_ptr<btrfs::TreeSearch> search = takeSearch();
  bool isSound = true, isStopped = false;
  std::size_t items = 0;
  const auto use = [&](const btrfs::TreeKey& key, std::span<const std::byte> item) {
    isStopped = ++items % 1024 == 0 && shouldStop();
    isSound = builder.take(key, item);
    return isSound && !isStopped;
  };
  const SysStatus status = search->run(root_, 0, first, last, use, goOn);
  giveBack(std::move(search));
  if (!status) return Errno{status.error()};
  if (isStopped) return Errno{ECANCELED};
  if (!isSound) return Errno{EBADMSG};
  return {};
}

void BtrfsTree::note(const std::vector<MetNames>& met, const std::vector<CutList>& lists) {
  NativeLock lock(mutex_);
  met_.insert(met_.end(), met.begin(), met.end());
  cutLists_.insert(cutLists_.end(), lists.begin(), lists.end());
}

SysResult<TreePiece> BtrfsTree::finish(FunctionRef<bool()> shouldStop) {
  PieceBuilder builder(0);
  for (const CutList& list : neededLists()) {
    if (shouldStop()) return Errno{ECANCELED};
    const btrfs::TreeKey last{list.rest.objectId, BTRFS_DIR_INDEX_KEY, ~0ull};
    const SysStatus status = readItems({list.rest}, last, builder, shouldStop,
                                       [](const btrfs::TreeKey& key) { return btrfs::TreeSearch::behind(key); });
    if (!status) return Errno{status.error()};
  }
  const auto now = btrfs::subvolumeOf(root_);
  if (!now) return Errno{now.error()};
  if (*now != subvolume_) return Errno{ESTALE};
  return std::move(builder.piece());
}

std::vector<BtrfsTree::CutList> BtrfsTree::neededLists() {
  NativeLock lock(mutex_);
  std::vector<CutList> lists = std::move(cutLists_);
  const auto isBelow = [](const CutList& list, std::uint64_t number) { return list.rest.objectId < number; };
  std::sort(lists.begin(), lists.end(),
            [&](const CutList& a, const CutList& b) { return isBelow(a, b.rest.objectId); });
  for (const MetNames& names : std::exchange(met_, {})) {
    const auto list = std::lower_bound(lists.begin(), lists.end(), names.directory, isBelow);
    if (list != lists.end() && list->rest.objectId == names.directory) list->size -= 2 * names.bytes;
  }
  std::erase_if(lists, [](const CutList& list) { return list.size == 0; });
  return lists;
}

std::unique_ptr<btrfs::TreeSearch> BtrfsTree::takeSearch() {
  {
    NativeLock lock(mutex_);
    if (!searches_.empty()) {
      auto search = std::move(searches_.back());
      searches_.pop_back();
      return search;
    }
  }
  return std::make_unique<btrfs::TreeSearch>(btrfs::TreeSearch::bulkBuffer);
}

void BtrfsTree::giveBack(std::unique_ptr<btrfs::TreeSearch> search) {
  NativeLock lock(mutex_);
  searches_.push_back(std::move(search));
}

}  // namespace quillmark::os
