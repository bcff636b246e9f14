// What the activity log tells of the indexing of a volume's snapshots.
// Threads: as the commands.
// Errors:  none; what can't be read is as if it weren't there.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "quill/QuillCommands.h"

namespace quillmark::cli {

// The last attempt at a snapshot.
struct IndexRecord {
  std::int64_t files = 0;  // of one that succeeded
  std::int64_t durationMs = 0;
  std::optional<std::string> error;
};

struct IndexRecords {
  std::map<std::string, IndexRecord> bySnapshot;
  std::optional<std::int64_t> lastFiles;  // of the last that succeeded
};

// Of the newest file of the log alone: it is looked at for what happened lately.
[[nodiscard]] IndexRecords indexRecordsOf(CommandContext& context, const std::string& volumeUUID);

}  // namespace quillmark::cli
