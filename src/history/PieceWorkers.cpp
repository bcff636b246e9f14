#include "history/PieceWorkers.h"

#include "platform/DirectoryReader.h"

namespace quillmark {

PieceWorkers::PieceWorkers(Dispatch& dispatch, DirectoryReader& reader, const ScanRequest& request)
    : reader_(reader), request_(request),
      queue_(dispatch.makeQueue(
          {.label = "com.harrowfern.quillmark.scan", .concurrent = true, .qualityOfService = request.qos})),
      working_(dispatch), mutex_(dispatch) {}

SysStatus PieceWorkers::run(std::size_t pieces, unsigned workers, PieceWork work) {
  {
    MutexLock lock(mutex_);
    run_ = {.work = work, .pieces = pieces, .workers = workers};
  }
  if (workers == 1) {
    this->work();
  } else {
    addWorkers(workers);
    working_.wait();
  }
  MutexLock lock(mutex_);
  if (run_.thrown) throw Error(*run_.thrown);
  if (run_.error != 0) return Errno{run_.error};
  return {};
}

void PieceWorkers::widen(unsigned workers) {
  unsigned more = 0;
  {
    MutexLock lock(mutex_);
    if (run_.workers == 1 || run_.workers >= workers) return;
    more = workers - run_.workers;
    run_.workers = workers;
  }
  addWorkers(more);
}

SnapshotIndex::EntryBuckets PieceWorkers::takeEntries() {
  MutexLock lock(mutex_);
  return std::move(buckets_);
}

void PieceWorkers::addWorkers(unsigned count) {
  for (unsigned i = 0; i < count; ++i) {
    working_.enter();
    queue_->async([this] {
      work();
      working_.leave();
    });
  }
}

void PieceWorkers::work() {
  try {
    const auto lowered = request_.lowPriority ? reader_.lowerPriority() : nullptr;
    std::optional<PieceWork> task;
    {
      MutexLock lock(mutex_);
      task = run_.work;
    }
    takePieces(*task);
  } catch (const std::exception& exception) {
    MutexLock lock(mutex_);
    if (!run_.thrown) run_.thrown = asError(exception);
  }
}

void PieceWorkers::takePieces(PieceWork task) {
  ScanCollector::Entries entries;
  while (const std::optional<std::size_t> piece = nextPiece()) {
    const SysStatus done = task(*piece, entries);
    if (done) continue;
    MutexLock lock(mutex_);
    if (run_.error == 0) run_.error = done.error();
  }
  MutexLock lock(mutex_);
  splice(buckets_, std::move(entries.buckets));
}

std::optional<std::size_t> PieceWorkers::nextPiece() {
  MutexLock lock(mutex_);
  if (run_.next == run_.pieces || run_.error != 0 || run_.thrown) return std::nullopt;
  return run_.next++;
}

}  // namespace quillmark
