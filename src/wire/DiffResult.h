// DiffResult: what changed between two states of a tree, as clients receive it.
// Its JSON form: wire/Json.h. Its file form: the binary form of property lists ("bplist00"): one dictionary with the same
// keys, big-endian numbers, UTF-16 where text isn't ASCII.
// Threads: values. Units: sizes in bytes, times in nanoseconds since 1970.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/FunctionRef.h"
#include "base/Xid.h"

namespace quillmark {

struct DiffResult {
  enum class ChangeKind { added, deleted, modified, replaced, moved };
  enum class EntryType { file, directory, symlink, other };

  struct Row {
    std::string path;  // of a moved item: the new one
    ChangeKind kind = ChangeKind::added;
    EntryType type = EntryType::other;  // after the change; of a deleted item its own
    std::optional<std::int64_t> oldSize, newSize;
    std::optional<std::int64_t> oldMTimeNS, newMTimeNS;
    std::optional<std::string> oldPath;  // of a moved item
    bool operator==(const Row&) const = default;
  };
  struct TreeEntry {
    std::string path;
    EntryType type = EntryType::other;
    std::int64_t size = 0;
    bool operator==(const TreeEntry&) const = default;
  };

  std::string volumeUUID;  // "local" when no snapshots were compared
  Xid xidA, xidB;          // as asked for
  std::vector<Row> rows;   // ascending by path
  std::vector<TreeEntry> treeEntries;
  bool truncated = false;
  std::int64_t totalRowCount = 0;  // of all changes, those cut off too
  bool operator==(const DiffResult&) const = default;
};

[[nodiscard]] std::string_view name(DiffResult::ChangeKind kind);
[[nodiscard]] std::string_view name(DiffResult::EntryType type);

// The JSON form row by row: as wire/Json.h gives and takes it, without all of it in memory as values at once.
[[nodiscard]] std::string encodeDiffResult(const DiffResult& result);
// Needs well-formed JSON, as a decoded reply holds. Throws Error with what is wrong. Each row has wire/Json.h's bounds.
[[nodiscard]] DiffResult decodeDiffResult(std::string_view json);

// Hands the file's bytes over in pieces of about 64 KiB.
void writeDiffResult(const DiffResult& result, FunctionRef<void(std::string_view)> sink);
// Takes hostile input. Throws Error with what is wrong.
[[nodiscard]] DiffResult readDiffResult(std::string_view file);

}  // namespace quillmark
