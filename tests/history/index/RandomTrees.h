// Random trees, with all that makes an order of paths hard, and the plain maps that they are checked against.
#pragma once

#include <algorithm>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "history/index/ShardedEntries.h"

namespace quillmark::SnapshotIndex {

using Model = std::map<std::string, Facts, std::less<>>;

class RandomTrees final {
 public:
  explicit RandomTrees(std::uint64_t seed) : random_(seed) {}

  std::uint64_t below(std::uint64_t end) { return random_() % end; }

  // Few enough that they collide; beginnings in common, ends at and around eight bytes, neighbours of the slash.
  std::string path() {
    static const std::vector<std::string> names = {"a",
                                                   "a.b",
                                                   "a0",
                                                   "a-",
                                                   "aaaaaaa",
                                                   "aaaaaaaa",
                                                   "aaaaaaaaa",
                                                   "aaaaaaaaaaaaaaaab",
                                                   "\xc3\xa9",
                                                   "e\xcc\x81",
                                                   "\xf0\x9f\x8d\x8b",
                                                   "A",
                                                   "b",
                                                   "Library",
                                                   "Libraries",
                                                   std::string("a\0", 2),
                                                   std::string("a\0\0b", 4),
                                                   std::string(300, 'l')};
    std::string path;
    for (std::uint64_t depth = below(5); depth > 0; --depth) path += "/" + names[below(names.size())];
    return path.empty() ? "/" : path + (below(3) == 0 ? std::to_string(below(40)) : "");
  }

  Facts facts() {
    Facts facts;
    facts.type = static_cast<EntryType>(1 + below(4));
    facts.inode = below(400);  // so that some are links
    facts.parentInode = below(3);
    facts.size = static_cast<std::int64_t>(below(3)) - 1;
    facts.mtimeNS = static_cast<std::int64_t>(below(2));
    facts.metaBits = static_cast<std::int64_t>(below(2)) - 1;
    facts.generation = static_cast<std::int64_t>(below(3));
    return facts;
  }

  Model model(std::size_t count) {
    Model model;
    for (std::size_t i = 0; i < count; ++i) model.insert_or_assign(path(), facts());
    return model;
  }

  // The same with a field changed here, a path gone, new or renamed there.
  Model changed(const Model& from) {
    Model model;
    for (const auto& [pathBefore, factsBefore] : from) {
      std::string path = pathBefore;
      Facts facts = factsBefore;
      const Facts other = this->facts();
      switch (below(16)) {
        case 0: continue;
        case 1: facts.type = other.type; break;
        case 2: facts.inode = other.inode; break;
        case 3: facts.size = other.size; break;
        case 4: facts.mtimeNS = other.mtimeNS; break;
        case 5: facts.metaBits = other.metaBits; break;
        case 6: facts.generation = other.generation; break;
        case 7: facts.parentInode = other.parentInode; break;
        case 8: path += "-moved"; break;
        case 9: model.insert_or_assign(this->path(), other); break;
        default: break;
      }
      model.insert_or_assign(path, facts);
    }
    return model;
  }

  // Built in any order, half of it by directory and name, from several buckets.
  ShardedEntries tree(Dispatch& dispatch, const Model& model) {
    std::vector<Entry> entries = entriesOf(model);
    std::shuffle(entries.begin(), entries.end(), random_);
    EntryBuckets buckets, others;
    for (const Entry& entry : entries) {
      EntryBuckets& into = below(2) == 0 ? buckets : others;
      const std::size_t slash = entry.path.rfind('/');
      if (below(2) == 0) {
        append(into, entry.view());
      } else {
        append(into, entry.path.substr(0, slash), entry.path.substr(slash + 1), entry);
      }
    }
    splice(buckets, std::move(others));
    return ShardedEntries(dispatch, std::move(buckets));
  }

  static std::vector<Entry> entriesOf(const Model& model) {
    std::vector<Entry> entries;
    for (const auto& [path, facts] : model) entries.emplace_back(facts, path);
    return entries;
  }

 private:
  std::mt19937_64 random_;
};

inline std::vector<Entry> byPath(const ShardedEntries& tree) {
  std::vector<Entry> entries;
  tree.forEachByPath([&](const EntryView& entry) { entries.emplace_back(entry); });
  return entries;
}

inline void PrintTo(const Entry& entry, std::ostream* out) {
  *out << entry.path << " type " << static_cast<int>(entry.type) << " inode " << entry.inode << " size " << entry.size
       << " mtime " << entry.mtimeNS << " meta " << entry.metaBits << " generation " << entry.generation;
}
inline void PrintTo(const Pair& pair, std::ostream* out) {
  PrintTo(pair.a, out);
  *out << " -> ";
  PrintTo(pair.b, out);
}

}  // namespace quillmark::SnapshotIndex
