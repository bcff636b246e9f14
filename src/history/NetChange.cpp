#include "history/NetChange.h"

#include <unordered_map>

#include "history/index/Comparison.h"

namespace quillmark {
namespace {

struct Ends {
  std::optional<SnapshotIndex::Facts> before, after;
};
// By path; the first transition of a path tells where it came from, the last one where it went.
using Paths = std::unordered_map<std::string, Ends>;

bool readPaths(SnapshotHistoryStore& store, const VolumeUuid& volume, Xid lower, Xid higher, Paths& paths) {
  bool truncated = false;
  store.consistentRead({}, [&](HistoryConnection& connection) {
    paths.clear();
    truncated = false;
    store.forEachChange(volume, lower, higher, connection, [&](Xid, const HistoryChange& change) {
      auto found = paths.find(change.path);
      if (found == paths.end()) {
        if (paths.size() >= static_cast<std::size_t>(SnapshotIndex::rowLimit)) {
          truncated = true;
          return;
        }
        found = paths.emplace(change.path, Ends{.before = change.before, .after = {}}).first;
      }
      found->second.after = change.after;
    });
  });
  return truncated;
}

}  // namespace

NetChange readNetChange(Dispatch& dispatch, SnapshotHistoryStore& store, const VolumeUuid& volume, Xid lower,
                        Xid higher, const std::function<bool(std::string_view path)>& keeps) {
  Paths paths;
  const bool truncated = readPaths(store, volume, lower, higher, paths);
  SnapshotIndex::EntryBuckets before, after;
  for (const auto& [path, ends] : paths) {
    if (keeps && !keeps(path)) continue;
    if (ends.before) append(before, SnapshotIndex::EntryView{*ends.before, path});
    if (ends.after) append(after, SnapshotIndex::EntryView{*ends.after, path});
  }
  return {SnapshotIndex::ShardedEntries(dispatch, std::move(before)),
          SnapshotIndex::ShardedEntries(dispatch, std::move(after)), truncated};
}

SnapshotIndex::DiffOutput diff(const NetChange& change) {
  using SnapshotIndex::ComparisonMode;
  SnapshotIndex::DiffOutput output = SnapshotIndex::diff(change.before, change.after, ComparisonMode::snapshotLineage);
  output.truncated = output.truncated || change.truncated;
  return output;
}

}  // namespace quillmark
