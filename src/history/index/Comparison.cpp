#include "history/index/Comparison.h"

#include <algorithm>
#include <array>
#include <limits>
#include <span>
#include <utility>

#include "history/index/EachShard.h"
#include "history/index/TreeShard.h"

namespace quillmark::SnapshotIndex {
namespace {

using Row = TreeShard::Row;

// An entry of a tree.
struct Place {
  std::uint32_t shard;
  Row row;
};
using Places = std::pair<Place, Place>;

struct Changes {
  std::vector<Place> added, deleted;
  std::vector<Places> modified, replaced, moved;
};

// ---- classification

bool isUnchanged(const Facts& a, const Facts& b, ComparisonMode mode) {
  if (a.metaBits != b.metaBits) return false;
  if (mode == ComparisonMode::snapshotLineage && a.inode != b.inode) return false;
  if (a.type == EntryType::directory) return true;
  if (a.size != b.size || a.mtimeNS != b.mtimeNS) return false;
  if (mode == ComparisonMode::independentTrees) return true;
  return a.generation == 0 || b.generation == 0 || a.generation == b.generation;
}

Changes classify(const ShardedEntries& first, const ShardedEntries& second, std::size_t number, ComparisonMode mode) {
  const TreeShard& a = first.shard(number);
  const TreeShard& b = second.shard(number);
  const auto shard = static_cast<std::uint32_t>(number);
  Changes changes;
  TreeShard::Cursor atA(a), atB(b);
  while (!atA.atEnd() || !atB.atEnd()) {
    const int order = atA.atEnd() ? 1 : atB.atEnd() ? -1 : atA.path().compare(atB.path());
    if (order < 0) changes.deleted.push_back({shard, atA.row()});
    if (order > 0) changes.added.push_back({shard, atB.row()});
    if (order == 0) {
      const Facts before = a.facts(atA.row()), after = b.facts(atB.row());
      const Places both{{shard, atA.row()}, {shard, atB.row()}};
      if (before.type != after.type) {
        changes.replaced.push_back(both);
      } else if (!isUnchanged(before, after, mode)) {
        changes.modified.push_back(both);
      }
    }
    if (order <= 0) atA.advance();
    if (order >= 0) atB.advance();
  }
  return changes;
}

template <class List>
void concatenate(std::span<Changes> parts, List Changes::*list, Changes& all) {
  std::size_t count = 0;
  for (const Changes& part : parts) count += (part.*list).size();
  (all.*list).reserve(count);
  for (Changes& part : parts) {
    (all.*list).insert((all.*list).end(), (part.*list).begin(), (part.*list).end());
    part.*list = {};
  }
}

Changes concatenated(std::span<Changes> parts) {
  Changes all;
  concatenate(parts, &Changes::added, all);
  concatenate(parts, &Changes::deleted, all);
  concatenate(parts, &Changes::modified, all);
  concatenate(parts, &Changes::replaced, all);
  return all;
}

// ---- moves

// Where an inode occurs in a list.
struct Occurrence {
  static constexpr std::size_t nowhere = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t ambiguous = nowhere - 1;
  std::size_t at = nowhere;

  void add(std::size_t index) { at = at == nowhere ? index : ambiguous; }
  [[nodiscard]] bool isUnique() const { return at < ambiguous; }
};

struct Candidate {
  std::uint64_t inode;
  Occurrence deleted, added;
};

// The indices of those that moved, in both lists, in no told order.
template <class FactsOfDeleted, class FactsOfAdded>
std::vector<std::pair<std::size_t, std::size_t>> moves(std::size_t deletedCount, const FactsOfDeleted& factsOfDeleted,
                                                       std::size_t addedCount, const FactsOfAdded& factsOfAdded) {
  if (deletedCount == 0 || addedCount == 0) return {};
  // Only inodes of the shorter list can be in both.
  const bool fewerDeleted = deletedCount <= addedCount;
  std::vector<Candidate> candidates;
  candidates.reserve(std::min(deletedCount, addedCount));
  for (std::size_t i = 0; i < std::min(deletedCount, addedCount); ++i) {
    candidates.push_back({fewerDeleted ? factsOfDeleted(i).inode : factsOfAdded(i).inode, {}, {}});
  }
  const auto byInode = [](const Candidate& a, const Candidate& b) { return a.inode < b.inode; };
  std::sort(candidates.begin(), candidates.end(), byInode);
  candidates.erase(std::unique(candidates.begin(), candidates.end(),
                               [](const Candidate& a, const Candidate& b) { return a.inode == b.inode; }),
                   candidates.end());
  const auto enter = [&](std::uint64_t inode, Occurrence Candidate::*side, std::size_t index) {
    const auto found = std::lower_bound(candidates.begin(), candidates.end(), Candidate{inode, {}, {}}, byInode);
    if (found != candidates.end() && found->inode == inode) ((*found).*side).add(index);
  };
  for (std::size_t i = 0; i < deletedCount; ++i) enter(factsOfDeleted(i).inode, &Candidate::deleted, i);
  for (std::size_t i = 0; i < addedCount; ++i) enter(factsOfAdded(i).inode, &Candidate::added, i);

  std::vector<std::pair<std::size_t, std::size_t>> pairs;
  for (const Candidate& candidate : candidates) {
    const std::size_t a = candidate.deleted.at, b = candidate.added.at;
    if (!candidate.deleted.isUnique() || !candidate.added.isUnique()) continue;
    if (factsOfDeleted(a).type == factsOfAdded(b).type) pairs.emplace_back(a, b);
  }
  return pairs;
}

template <class Element>
void eraseMarked(std::vector<Element>& list, const std::vector<bool>& marked) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (marked[i]) continue;
    if (kept != i) list[kept] = std::move(list[i]);
    ++kept;
  }
  list.erase(list.begin() + static_cast<std::ptrdiff_t>(kept), list.end());
}

template <class Output, class FactsOfDeleted, class FactsOfAdded, class MakePair>
void takeMovesOut(Output& output, const FactsOfDeleted& factsOfDeleted, const FactsOfAdded& factsOfAdded,
                  const MakePair& makePair) {
  auto pairs = moves(output.deleted.size(), factsOfDeleted, output.added.size(), factsOfAdded);
  if (pairs.empty()) return;
  // In the order of what is gone, whatever the inodes are.
  std::sort(pairs.begin(), pairs.end());
  std::vector<bool> deletedUsed(output.deleted.size()), addedUsed(output.added.size());
  output.moved.reserve(output.moved.size() + pairs.size());
  for (const auto& [a, b] : pairs) {
    output.moved.push_back(makePair(output.deleted[a], output.added[b]));
    deletedUsed[a] = addedUsed[b] = true;
  }
  eraseMarked(output.deleted, deletedUsed);
  eraseMarked(output.added, addedUsed);
}

// ---- the cap

// How much of each list is kept.
struct Shares {
  std::size_t deleted, modified, replaced, moved, added;
  std::int64_t total;
  bool truncated;
};

template <class Output>
Shares sharesOf(const Output& output, std::int64_t limit) {
  Shares shares{output.deleted.size(),
                output.modified.size(),
                output.replaced.size(),
                output.moved.size(),
                output.added.size(),
                0,
                false};
  const std::array<std::size_t*, 5> inTurn = {&shares.deleted, &shares.modified, &shares.replaced, &shares.moved,
                                              &shares.added};
  for (const std::size_t* share : inTurn) shares.total += static_cast<std::int64_t>(*share);
  if (limit >= shares.total) return shares;
  shares.truncated = true;
  auto left = static_cast<std::size_t>(std::max<std::int64_t>(limit, 0));
  for (std::size_t* share : inTurn) {
    *share = std::min(*share, left);
    left -= *share;
  }
  return shares;
}

// ---- from places to rows

class RowMaker final {
 public:
  RowMaker(const ShardedEntries& first, const ShardedEntries& second) : first_(first), second_(second) {}

  [[nodiscard]] Facts factsOfFirst(Place place) const { return first_.shard(place.shard).facts(place.row); }
  [[nodiscard]] Facts factsOfSecond(Place place) const { return second_.shard(place.shard).facts(place.row); }

  [[nodiscard]] DiffOutput rows(const Changes& changes, const Shares& shares) const {
    DiffOutput output;
    output.deleted = entries(first_, std::span(changes.deleted).first(shares.deleted));
    output.modified = pairs(std::span(changes.modified).first(shares.modified));
    output.replaced = pairs(std::span(changes.replaced).first(shares.replaced));
    output.moved = pairs(std::span(changes.moved).first(shares.moved));
    output.added = entries(second_, std::span(changes.added).first(shares.added));
    return output;
  }

 private:
  [[nodiscard]] static Entry entry(const ShardedEntries& tree, Place place) {
    return Entry(tree.shard(place.shard).view(place.row));
  }
  [[nodiscard]] static std::vector<Entry> entries(const ShardedEntries& tree, std::span<const Place> places) {
    std::vector<Entry> list;
    list.reserve(places.size());
    for (const Place place : places) list.push_back(entry(tree, place));
    return list;
  }
  [[nodiscard]] std::vector<Pair> pairs(std::span<const Places> places) const {
    std::vector<Pair> list;
    list.reserve(places.size());
    for (const auto& [a, b] : places) list.push_back({entry(first_, a), entry(second_, b)});
    return list;
  }

  const ShardedEntries& first_;
  const ShardedEntries& second_;
};

using Parts = std::array<Changes, shardCount>;

Changes classifyAll(const ShardedEntries& first, const ShardedEntries& second, ComparisonMode mode) {
  Parts parts;
  for (std::size_t i = 0; i < shardCount; ++i) parts[i] = classify(first, second, i, mode);
  return concatenated(parts);
}

DiffOutput finished(const ShardedEntries& first, const ShardedEntries& second, Changes changes, ComparisonMode mode) {
  const RowMaker maker(first, second);
  if (mode == ComparisonMode::snapshotLineage) {
    takeMovesOut(
        changes, [&](std::size_t i) { return maker.factsOfFirst(changes.deleted[i]); },
        [&](std::size_t i) { return maker.factsOfSecond(changes.added[i]); },
        [](Place a, Place b) {
          return Places{a, b};
        });
  }
  const Shares shares = sharesOf(changes, rowLimit);
  DiffOutput output = maker.rows(changes, shares);
  output.truncated = shares.truncated;
  output.totalChangeCount = shares.total;
  return output;
}

}  // namespace

DiffOutput diffMaps(const ShardedEntries& first, const ShardedEntries& second, ComparisonMode mode) {
  const Changes changes = classifyAll(first, second, mode);
  return RowMaker(first, second).rows(changes, sharesOf(changes, std::numeric_limits<std::int64_t>::max()));
}

void detectMoves(DiffOutput& output) {
  takeMovesOut(
      output, [&](std::size_t i) -> const Facts& { return output.deleted[i]; },
      [&](std::size_t i) -> const Facts& { return output.added[i]; },
      [](Entry& a, Entry& b) {
        return Pair{std::move(a), std::move(b)};
      });
}

DiffOutput capped(DiffOutput output, std::int64_t limit) {
  const Shares shares = sharesOf(output, limit);
  output.deleted.resize(shares.deleted);
  output.modified.resize(shares.modified);
  output.replaced.resize(shares.replaced);
  output.moved.resize(shares.moved);
  output.added.resize(shares.added);
  output.truncated = output.truncated || shares.truncated;
  output.totalChangeCount = shares.total;
  return output;
}

DiffOutput diff(const ShardedEntries& first, const ShardedEntries& second, ComparisonMode mode) {
  return finished(first, second, classifyAll(first, second, mode), mode);
}

DiffOutput diffSharded(Dispatch& dispatch, const ShardedEntries& first, const ShardedEntries& second,
                       ComparisonMode mode) {
  Parts parts;
  forEachShard(dispatch, QualityOfService::userInitiated,
               [&](std::size_t i) { parts[i] = classify(first, second, i, mode); });
  return finished(first, second, concatenated(parts), mode);
}

}  // namespace quillmark::SnapshotIndex
