// How a person names a snapshot: its name, its XID, its label, or its age.
// Threads: pure.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "wire/Records.h"

namespace quillmark::cli {

// The snapshot that the reference means among those of one volume:
//   latest, latest~N                    the newest one, the N-th before it
//   a full name                         that one, whatever else the text could mean
//   an XID, a label, a display name     the one that bears it
//   the end of a name from a dot on     ("2026-03-01T09-15-02Z.before-upgrade") the one that ends so
// Throws ambiguousSnapshotRef with the candidates when several are meant, snapshotNotFound when none is, wrongUse for
// an empty reference.
[[nodiscard]] SnapshotRecord resolveReference(const std::vector<SnapshotRecord>& snapshots, std::string_view reference);

// "com.harrowfern.Quillmark.manual.…" as "manual.…"; any other name as it is.
[[nodiscard]] std::string shortName(std::string_view name);

}  // namespace quillmark::cli
