// JSONLinesLog: an append-only, rotating log of one type of record, each a line of JSON that is on disk when append
// returns. Read by cursor, here or by another process: journal/JSONLinesReader.h.
//
//   JSONLinesLog<HelperEvent> log(dispatch, posix, platformLog, activityLogDescription(paths));
//   if (const std::optional<Error> failure = log.append(event)) { ... }
//
// Ownership: borrows the dispatch, whose clock it reads, the file calls and the platform's log.
// Threads:   thread-safe; append waits for the disk on the writer's queue, readSince doesn't go there.
// Errors:    append logs its failure and hands it back; the record is not kept for later.
// Invariant: what was appended without an error is lost by pruning only. There is one writer of a log.
#pragma once

#include <memory>
#include <optional>
#include <utility>

#include "base/Error.h"
#include "journal/JSONLinesFormat.h"
#include "journal/JSONLinesReader.h"
#include "journal/LineWriter.h"
#include "platform/dispatch.h"

namespace quillmark {

template <class Record>
class JSONLinesLog final {
 public:
  JSONLinesLog(Dispatch& dispatch, Posix& posix, PlatformLog& log, const JSONLinesDescription& description)
      : writerQueue_(dispatch.makeQueue({.label = description.writerQueueLabel()})),
        writer_(posix, log, dispatch.clock(), description), reader_(posix, log, description) {}
  JSONLinesLog(const JSONLinesLog&) = delete;
  JSONLinesLog& operator=(const JSONLinesLog&) = delete;

  [[nodiscard]] std::optional<Error> append(const Record& record) {
    std::optional<Error> failure;
    writerQueue_->sync([&] { failure = writer_.append([&] { return encodeJson(record); }); });
    return failure;
  }

  // Never fails outwardly.
  [[nodiscard]] ReadBatch<Record> readSince(std::optional<JSONLinesCursor> cursor) const {
    return reader_.readSince(cursor);
  }

 private:
  const std::shared_ptr<Queue> writerQueue_;
  LineWriter writer_;  // confined to writerQueue_
  const JSONLinesReader<Record> reader_;
};

}  // namespace quillmark
