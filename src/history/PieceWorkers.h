// PieceWorkers: the same work on each piece of a tree, by several threads, which can become more on the way.
// Ownership: borrows what it is made over.
// Threads:   run() by one thread; widen() by the work.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>

#include "base/Error.h"
#include "base/FunctionRef.h"
#include "base/SysResult.h"
#include "history/ScanCollector.h"
#include "platform/dispatch.h"
#include "platform/sync.h"

namespace quillmark {

class DirectoryReader;

class PieceWorkers final {
 public:
  // Each thread brings entries of its own.
  using PieceWork = FunctionRef<SysStatus(std::size_t piece, ScanCollector::Entries&)>;

  PieceWorkers(Dispatch& dispatch, DirectoryReader& reader, const ScanRequest& request);

  // Until all pieces are done or one fails; gives the first failure, and throws what the work throws. A single worker
  // is the calling thread.
  [[nodiscard]] SysStatus run(std::size_t pieces, unsigned workers, PieceWork work) EXCLUDES(mutex_);
  // Makes the workers of the run so many; has no effect on a single one.
  void widen(unsigned workers) EXCLUDES(mutex_);
  // What was handed in by all runs.
  [[nodiscard]] SnapshotIndex::EntryBuckets takeEntries() EXCLUDES(mutex_);

 private:
  struct Run {
    std::optional<PieceWork> work;
    std::size_t pieces = 0;
    std::size_t next = 0;
    unsigned workers = 0;
    int error = 0;
    std::optional<Error> thrown;
  };
  void work() EXCLUDES(mutex_);
  void takePieces(PieceWork work) EXCLUDES(mutex_);
  [[nodiscard]] std::optional<std::size_t> nextPiece() EXCLUDES(mutex_);
  void addWorkers(unsigned count);

  DirectoryReader& reader_;
  const ScanRequest& request_;
  const std::shared_ptr<Queue> queue_;
  Group working_;
  Mutex mutex_;
  Run run_ GUARDED_BY(mutex_);
  SnapshotIndex::EntryBuckets buckets_ GUARDED_BY(mutex_);
};

}  // namespace quillmark
