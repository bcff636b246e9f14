// SnapshotIndex: one file tree as it stood in one snapshot or live directory, and what two such trees differ in.
// Paths are text (platform/NameText.h) relative to the tree's root: "/" for the root itself, else a leading "/" and the
// components joined by "/". They compare, hash and sort byte by byte.
// Threads: values. Units: sizes in bytes, times in nanoseconds since 1970.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmark::SnapshotIndex {

// The raw values stand in the history database.
enum class EntryType : std::uint8_t { file = 1, directory = 2, symlink = 3, other = 4 };
[[nodiscard]] std::optional<EntryType> entryType(std::int64_t rawValue);

// All that is known of a file system object, but for its path.
struct Facts {
  EntryType type = EntryType::other;
  std::uint64_t inode = 0;        // file identifier within the volume; never given to another object
  std::uint64_t parentInode = 0;  // of the containing directory; 0 for the root
  std::int64_t size = 0;          // of a file; 0 for every other type but the root
  std::int64_t mtimeNS = 0;
  std::int64_t metaBits = 0;    // see metaBits()
  std::int64_t generation = 0;  // content-change witness of a file; 0: not known
  bool operator==(const Facts&) const = default;
};

// An entry whose path lies elsewhere.
struct EntryView : Facts {
  std::string_view path;
  bool operator==(const EntryView&) const = default;
};

struct Entry : Facts {
  std::string path;
  Entry() = default;
  explicit Entry(const EntryView& view) : Facts(view), path(view.path) {}
  Entry(const Facts& facts, std::string_view entryPath) : Facts(facts), path(entryPath) {}
  [[nodiscard]] EntryView view() const { return {*this, path}; }
  bool operator==(const Entry&) const = default;
};

// Fingerprint of mode, owner, group and flags: a fold in the manner of FNV-1a over the four values.
[[nodiscard]] std::int64_t metaBits(std::uint32_t mode, std::uint32_t uid, std::uint32_t gid, std::uint32_t flags);

// What a difference between two entries of one path means.
enum class ComparisonMode {
  snapshotLineage,   // two states of one volume's history
  independentTrees,  // two trees on different devices
  copyOnWriteTrees,  // two trees on the same device
};

struct Pair {
  Entry a, b;
  bool operator==(const Pair&) const = default;
};

struct DiffOutput {
  std::vector<Entry> added;           // paths only in the second tree
  std::vector<Entry> deleted;         // paths only in the first tree
  std::vector<Pair> modified;         // same path and type, changed
  std::vector<Pair> replaced;         // same path, another type
  std::vector<Pair> moved;            // the same object at a new path
  bool truncated = false;             // the lists were cut to the row limit
  std::int64_t totalChangeCount = 0;  // before any cutting
};

inline constexpr std::int64_t rowLimit = 250'000;

}  // namespace quillmark::SnapshotIndex
