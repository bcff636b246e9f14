#include "history/Comparison.h"

#include <algorithm>

namespace quillmark {
namespace {

using SnapshotIndex::Entry;
using SnapshotIndex::Pair;
using Kind = DiffResult::ChangeKind;

DiffResult::EntryType typeOf(SnapshotIndex::EntryType type) {
  switch (type) {
    case SnapshotIndex::EntryType::file: return DiffResult::EntryType::file;
    case SnapshotIndex::EntryType::directory: return DiffResult::EntryType::directory;
    case SnapshotIndex::EntryType::symlink: return DiffResult::EntryType::symlink;
    case SnapshotIndex::EntryType::other: break;
  }
  return DiffResult::EntryType::other;
}

DiffResult::Row rowOf(Kind kind, const Entry* before, const Entry* after, const std::string& path) {
  DiffResult::Row row{.path = path, .kind = kind, .type = typeOf(after ? after->type : before->type)};
  if (before) {
    row.oldSize = before->size;
    row.oldMTimeNS = before->mtimeNS;
  }
  if (after) {
    row.newSize = after->size;
    row.newMTimeNS = after->mtimeNS;
  }
  return row;
}

}  // namespace

DiffResult makeDiffResult(const Comparison& comparison, std::string volumeUUID, Xid xidA, Xid xidB) {
  const SnapshotIndex::DiffOutput& output = comparison.output;
  DiffResult result{.volumeUUID = std::move(volumeUUID), .xidA = xidA, .xidB = xidB};
  result.rows.reserve(output.added.size() + output.deleted.size() + output.modified.size() + output.replaced.size() +
                      output.moved.size());
  std::size_t bytes = 0;
  std::int64_t count = 0;
  const auto add = [&](Kind kind, const Entry* before, const Entry* after, const std::string& path) {
    const bool isMove = kind == Kind::moved;
    bytes += path.size() + (isMove ? before->path.size() : 0);
    ++count;
    if (bytes > mostPathBytes) return;
    DiffResult::Row& row = result.rows.emplace_back(rowOf(kind, before, after, path));
    if (isMove) row.oldPath = before->path;
  };
  for (const Entry& entry : output.deleted) add(Kind::deleted, &entry, nullptr, entry.path);
  for (const Pair& pair : output.modified) add(Kind::modified, &pair.a, &pair.b, pair.a.path);
  for (const Pair& pair : output.replaced) add(Kind::replaced, &pair.a, &pair.b, pair.a.path);
  for (const Pair& pair : output.moved) add(Kind::moved, &pair.a, &pair.b, pair.b.path);
  for (const Entry& entry : output.added) add(Kind::added, nullptr, &entry, entry.path);  // the first to be cut off
  std::stable_sort(result.rows.begin(), result.rows.end(), [](const DiffResult::Row& a, const DiffResult::Row& b) {
    const int order = a.path.compare(b.path);
    return order != 0 ? order < 0 : a.kind < b.kind;
  });
  result.treeEntries.reserve(comparison.combinedEntries.size());
  for (const Entry& entry : comparison.combinedEntries) {
    result.treeEntries.push_back({entry.path, typeOf(entry.type), entry.size});
  }
  result.truncated = output.truncated || bytes > mostPathBytes;
  result.totalRowCount = output.truncated ? output.totalChangeCount : count;
  return result;
}

}  // namespace quillmark
