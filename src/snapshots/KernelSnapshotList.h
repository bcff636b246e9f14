// The kernel's snapshot list: its records, told at SnapshotCalls::fs_snapshot_list, as values.
// Threads: pure.
// Errors:  throws snapshotListFailed for a record that isn't well formed. Takes hostile input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "base/Date.h"

namespace quillmark {

struct RawSnapshotEntry {
  std::string name;          // never empty
  std::uint64_t fileID = 0;  // never 0
  Date created;
  bool operator==(const RawSnapshotEntry&) const = default;
};

// Appends `count` entries of the buffer.
void parseSnapshotList(std::span<const std::byte> buffer, int count, std::vector<RawSnapshotEntry>& into);

}  // namespace quillmark
