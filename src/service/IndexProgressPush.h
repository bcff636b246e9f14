// The push that tells clients how far an index run is.
// Threads: pure.
#pragma once

#include <string_view>

#include "history/HistoryProviders.h"
#include "wire/CommandTable.h"

namespace quillmark::IndexProgressPush {

inline constexpr std::string_view selector = "indexProgressWithVolumeUUID:snapshotXID:phase:filesScanned:";

[[nodiscard]] inline ArgumentValues arguments(const ActiveIndexProgress& progress) {
  return {progress.volumeUUID, progress.snapshotXID.value, progress.phase, progress.filesScanned};
}

}  // namespace quillmark::IndexProgressPush
