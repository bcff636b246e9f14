// UnservedSubvolumes: what people may believe safe, though no snapshot of a mounted volume holds it or none is served.
// A plain value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Uuid.h"

namespace quillmark {

// Snapshots of ours whose volume isn't mounted on their file system.
struct StrandedSnapshots {
  Uuid volume;
  std::uint64_t count = 0;
  // Of the volume at the top level, as text, beginning with "/"; absent when the volume is gone, as after a rollback.
  std::optional<std::string> path;
};

// Of one volume.
struct UnservedSubvolumes {
  static constexpr std::size_t mostPaths = 20;

  Uuid fileSystem;
  std::vector<StrandedSnapshots> stranded;  // on its file system: the same for all volumes there
  // Subvolumes below the volume that its snapshots leave out and that aren't mounted by themselves: how many, and where
  // the first of them stand, within the volume, as text.
  std::uint64_t nestedCount = 0;
  std::vector<std::string> nestedPaths;
};

}  // namespace quillmark
