// How the index of each volume is: what quill puts together from the helper's answers.
// Threads: as the commands.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quill/PushLine.h"
#include "quill/QuillCommands.h"
#include "wire/Records.h"

namespace quillmark::cli {

enum class IndexState { current, indexing, waiting, partial, off, untracked, empty, unavailable };
[[nodiscard]] std::string_view word(IndexState state);

struct VolumeIndex {
  std::string volumeUUID;
  std::string name;
  IndexState state = IndexState::current;
  std::size_t snapshots = 0;
  std::size_t indexed = 0;
  std::size_t waiting = 0;  // newer than what is indexed
  std::size_t outside = 0;  // older: only a rebuild takes them in
  std::optional<IndexPush> running;
  std::string runningName;
  std::string detail;
};

// Of the listing alone.
[[nodiscard]] VolumeIndex countedIndex(const std::vector<SnapshotRecord>& snapshots);
// Of all volumes that are here and aren't only shown, or of the one.
[[nodiscard]] std::vector<VolumeIndex> indexesOf(CommandContext& context, const std::optional<std::string>& volume);

// Those that indexing is for.
[[nodiscard]] std::vector<std::string> indexableVolumes(CommandContext& context);
// What the helper says of the last failure on the volume; absent when there is none.
[[nodiscard]] std::optional<std::string> indexFailureOf(CommandContext& context, const std::string& volumeUUID);

[[nodiscard]] Table tableOf(const std::vector<VolumeIndex>& indexes, bool forTerminal);
[[nodiscard]] std::string jsonOf(const std::vector<VolumeIndex>& indexes);

}  // namespace quillmark::cli
