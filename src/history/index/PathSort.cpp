// Sorting in two steps, directories and then the names in each, because paths of one tree share long beginnings, which a
// comparison of whole paths would read again and again; and by eight bytes at a time, for the same reason.
#include <algorithm>
#include <bit>
#include <cstring>
#include <span>

#include "history/index/EntryItems.h"

namespace quillmark::SnapshotIndex {
namespace {

struct Key {
  std::uint64_t head;    // eight bytes of the text from some depth on, the first the most significant
  std::uint32_t number;  // of the text
};

constexpr std::size_t headSize = sizeof(Key::head);
// Below this many a plain sort is quicker.
constexpr std::size_t fewKeys = 32;

std::uint64_t headOf(std::string_view text, std::size_t depth) {
  std::uint64_t head = 0;
  const std::size_t left = text.size() - depth;
  if (left >= headSize) {
    std::memcpy(&head, text.data() + depth, headSize);
  } else {
    std::memcpy(&head, text.data() + depth, left);
  }
  if constexpr (std::endian::native == std::endian::little) head = __builtin_bswap64(head);
  return head;
}

// Ascending by text, then by number.
template <class TextOf>
class TextSorter final {
 public:
  explicit TextSorter(const TextOf& textOf) : textOf_(textOf) {}

  // All texts are the same up to the depth, and no shorter. Not recursive: a path may be long.
  void sort(std::span<Key> all, std::size_t depth) {
    groups_.push_back({all, depth});
    while (!groups_.empty()) {
      const Group group = groups_.back();
      groups_.pop_back();
      for (Key& key : group.keys) key.head = headOf(textOf_(key.number), group.depth);
      if (group.keys.size() <= fewKeys) {
        sortPlainly(group);
      } else {
        split(group);
      }
    }
  }

 private:
  struct Group {
    std::span<Key> keys;
    std::size_t depth;  // up to which they are the same
  };

  void sortPlainly(const Group& group) const {
    std::sort(group.keys.begin(), group.keys.end(), [&](const Key& a, const Key& b) {
      if (a.head != b.head) return a.head < b.head;
      const int order = textOf_(a.number).substr(group.depth).compare(textOf_(b.number).substr(group.depth));
      return order != 0 ? order < 0 : a.number < b.number;
    });
  }

  void split(const Group& group) {
    const auto [keys, depth] = group;
    const auto byHead = [](const Key& a, const Key& b) { return a.head < b.head; };
    if (!std::is_sorted(keys.begin(), keys.end(), byHead)) std::sort(keys.begin(), keys.end(), byHead);
    for (std::size_t from = 0; from < keys.size();) {
      std::size_t to = from + 1;
      while (to < keys.size() && keys[to].head == keys[from].head) ++to;
      if (to - from > 1) descend({keys.subspan(from, to - from), depth + headSize});
      from = to;
    }
  }

  // Where a text ended within the head, zeros stand for what it lacks: it goes before all that have such bytes.
  void descend(const Group& group) {
    const auto [keys, depth] = group;
    const auto goesOn = std::partition(
        keys.begin(), keys.end(), [&, depth = depth](const Key& key) { return textOf_(key.number).size() <= depth; });
    std::sort(keys.begin(), goesOn, [&](const Key& a, const Key& b) {
      const std::size_t lengthOfA = textOf_(a.number).size(), lengthOfB = textOf_(b.number).size();
      return lengthOfA != lengthOfB ? lengthOfA < lengthOfB : a.number < b.number;
    });
    const auto ended = static_cast<std::size_t>(goesOn - keys.begin());
    if (keys.size() - ended > 1) groups_.push_back({keys.subspan(ended), depth});
  }

  const TextOf& textOf_;
  std::vector<Group> groups_;
};

using Items = std::vector<const EntryItem*>;

bool isSamePath(const EntryItem& a, const EntryItem& b) {
  return a.name() == b.name() && (a.directory == b.directory || a.directory->text() == b.directory->text());
}

// A range of a list.
struct Range {
  std::uint32_t from, to;
};

// Entries of one directory that came one after the other.
std::vector<Range> runsOf(const Items& items) {
  std::vector<Range> runs;
  for (std::uint32_t i = 0; i < items.size(); ++i) {
    if (i == 0 || items[i]->directory != items[i - 1]->directory) runs.push_back({i, i});
    runs.back().to = i + 1;
  }
  return runs;
}

// The numbers of the items, directory by directory and in each by name. Gives where in them the directories lie.
std::vector<Range> sortSiblings(const Items& items, std::vector<Key>& sorted) {
  const std::vector<Range> runs = runsOf(items);
  const auto directoryOfRun = [&](std::uint32_t run) { return items[runs[run].from]->directory->text(); };
  std::vector<Key> runOrder(runs.size());
  for (std::uint32_t i = 0; i < runs.size(); ++i) runOrder[i].number = i;
  TextSorter(directoryOfRun).sort(runOrder, 0);

  const auto name = [&](std::uint32_t item) { return items[item]->name(); };
  TextSorter byName(name);
  std::vector<Range> directories;
  sorted.reserve(items.size());
  for (std::size_t i = 0; i < runOrder.size();) {
    const auto from = static_cast<std::uint32_t>(sorted.size());
    const std::string_view directory = directoryOfRun(runOrder[i].number);
    for (; i < runOrder.size() && directoryOfRun(runOrder[i].number) == directory; ++i) {
      const Range& run = runs[runOrder[i].number];
      for (std::uint32_t item = run.from; item < run.to; ++item) sorted.push_back({0, item});
    }
    byName.sort(std::span(sorted).subspan(from), 0);
    directories.push_back({from, static_cast<std::uint32_t>(sorted.size())});
  }
  return directories;
}

// Directories one after the other aren't in the order of paths yet: what lies below one comes between its own entries,
// all of it in one place ("/a.b" < "/a/..." < "/a0").
class Nesting final {
 public:
  Nesting(const Items& items, const std::vector<Key>& sorted) : items_(items), sorted_(sorted) {
    all_.reserve(items.size());
  }

  [[nodiscard]] Items of(const std::vector<Range>& directories) && {
    for (const Range& next : directories) {
      const std::string_view directory = directoryOf(next);
      while (!open_.empty() && !directory.starts_with(open_.back().text)) finish();
      if (!open_.empty()) tellUpTo(directory.substr(open_.back().text.size()));
      open_.push_back({next, directory});
    }
    while (!open_.empty()) finish();
    return std::move(all_);
  }

 private:
  struct Open {
    Range left;
    std::string_view text;
  };

  [[nodiscard]] std::string_view directoryOf(const Range& range) const {
    return items_[sorted_[range.from].number]->directory->text();
  }
  // Of the innermost directory.
  void tellUpTo(std::string_view name) {
    Range& left = open_.back().left;
    while (left.from < left.to && items_[sorted_[left.from].number]->name() < name) tell(left.from++);
  }
  void finish() {
    const Range left = open_.back().left;
    for (std::uint32_t at = left.from; at < left.to; ++at) tell(at);
    open_.pop_back();
  }
  // Of a path that came twice only the last.
  void tell(std::uint32_t at) {
    const EntryItem* item = items_[sorted_[at].number];
    if (!all_.empty() && isSamePath(*all_.back(), *item)) {
      all_.back() = item;
    } else {
      all_.push_back(item);
    }
  }

  const Items& items_;
  const std::vector<Key>& sorted_;
  std::vector<Open> open_;  // each lies below the one before it
  Items all_;
};

}  // namespace

Items inPathOrder(const EntryItems& items) {
  const Items all = items.list();
  std::vector<Key> sorted;
  const std::vector<Range> directories = sortSiblings(all, sorted);
  return Nesting(all, sorted).of(directories);
}

}  // namespace quillmark::SnapshotIndex
