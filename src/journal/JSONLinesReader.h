// JSONLinesReader: reads a log of JSON lines from where a cursor stands, beside its writer and without it.
//
//   JSONLinesReader<HelperEvent> reader(posix, platformLog, activityLogDescription(paths));
//   auto batch = reader.readSince(std::nullopt);
//   ... later: batch = reader.readSince(batch.cursor);
//
// Records come in the order of their writing. Followed by cursor, each is given once, whatever is rotated meanwhile;
// all that is left is given again when the cursor's file was pruned or replaced.
// Ownership: borrows the file calls and the log.
// Threads:   immutable; as thread-safe as what it borrows.
// Errors:    none thrown; a failed read is logged and told in the batch, which then holds nothing else.
// Units:     a batch ends at the first line past 256 MiB; its cursor leads on.
#pragma once

#include <optional>
#include <string_view>
#include <utility>

#include "base/FunctionRef.h"
#include "journal/JSONLinesFormat.h"
#include "wire/Json.h"

namespace quillmark {

class PlatformLog;
class Posix;

// The same over lines of bytes.
class LineReader final {
 public:
  LineReader(Posix& posix, PlatformLog& log, JSONLinesDescription description)
      : posix_(posix), log_(log), description_(std::move(description)) {}

  // `take` throws for a line that is corrupt; the line is without its line feed and not empty.
  [[nodiscard]] JSONLinesProgress readSince(std::optional<JSONLinesCursor> cursor,
                                            FunctionRef<void(std::string_view line)> take) const;

 private:
  Posix& posix_;
  PlatformLog& log_;
  const JSONLinesDescription description_;
};

template <class Record>
class JSONLinesReader final {
 public:
  JSONLinesReader(Posix& posix, PlatformLog& log, JSONLinesDescription description)
      : lines_(posix, log, std::move(description)) {}

  [[nodiscard]] ReadBatch<Record> readSince(std::optional<JSONLinesCursor> cursor) const {
    ReadBatch<Record> batch;
    static_cast<JSONLinesProgress&>(batch) =
        lines_.readSince(cursor, [&](std::string_view line) { batch.records.push_back(decodeJson<Record>(line)); });
    if (batch.error) batch.records.clear();
    return batch;
  }

 private:
  const LineReader lines_;
};

}  // namespace quillmark
