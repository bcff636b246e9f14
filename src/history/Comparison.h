// Comparison: what two states of a tree differ in, as the history keeps it and as clients get it.
#pragma once

#include <compare>
#include <string>
#include <vector>

#include "base/Uuid.h"
#include "base/Xid.h"
#include "history/index/SnapshotIndex.h"
#include "wire/DiffResult.h"

namespace quillmark {

struct Comparison {
  SnapshotIndex::DiffOutput output;
  std::vector<SnapshotIndex::Entry> combinedEntries;  // of both trees, by path; only when a tree was asked for
};

struct ComparisonKey {
  VolumeUuid volume;
  Xid xidA, xidB;  // as asked for
  bool includeTree = false;
  bool fullScan = false;
  auto operator<=>(const ComparisonKey&) const = default;
};

// Of a result's rows; more is cut off. Anybody can make names that are long and grow sixfold in JSON, and a reply holds
// 512 MiB.
inline constexpr std::size_t mostPathBytes = 80u << 20;

// Rows by path, those of one path in the order added, deleted, modified, replaced, moved.
[[nodiscard]] DiffResult makeDiffResult(const Comparison& comparison, std::string volumeUUID, Xid xidA, Xid xidB);

}  // namespace quillmark
