// DirectoryWalk: reads a tree directory by directory, depth first, on one thread or a few.
// Ownership: borrows what it is made over.
// Threads:   one run; its workers share what the lock guards and read outside it.
// Errors:    the first failure that can't be put up with ends the walk.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Error.h"
#include "history/ScanCollector.h"
#include "history/ScanStats.h"
#include "platform/DirectoryReader.h"
#include "platform/sync.h"

namespace quillmark {

class DirectoryWalk final {
 public:
  DirectoryWalk(Dispatch& dispatch, DirectoryReader& reader, OpenTree& tree, const ScanRequest& request,
                ScanCollector& collector, ScanStats& stats);

  // All entries below the root. Throws Error.
  [[nodiscard]] SnapshotIndex::EntryBuckets run();

 private:
  // A directory waiting to be read.
  struct Frame {
    std::string path;  // within the tree
    std::uint64_t inode = 0;
  };
  // What one thread reads, of one directory after the other.
  struct Batch {
    DirectoryRecords records;
    std::size_t counted = 0;  // of the memory they take
  };
  struct Failure {
    int code = 0;  // errno; 0 for what is no failed call
    Error error;
  };

  void work();
  void workThroughFrames();
  // Adds the directories that are to be read next. Throws Error.
  void handIn(const Frame& frame, const DirectoryRecords& records, ScanCollector::Entries& entries,
              std::vector<Frame>& found);
  [[nodiscard]] std::optional<Frame> nextFrame() EXCLUDES(mutex_);
  void finishFrame(std::vector<Frame> found) EXCLUDES(mutex_);
  void fail(Error error) EXCLUDES(mutex_);
  void mergeEntries(ScanCollector::Entries entries) EXCLUDES(mutex_);

  // Puts what is below the directory into the records; nothing for one that is put up with. Throws Error.
  void enumerate(const std::string& path, Batch& into);
  [[nodiscard]] std::optional<Failure> readInBulk(const std::string& path, Batch& into);
  [[nodiscard]] std::optional<Failure> readByNames(const std::string& path, Batch& into);
  // Nothing for an entry that is put up with, too.
  [[nodiscard]] std::optional<Failure> readEntry(OpenDirectory& directory, const std::string& path,
                                                 const std::string& name, DirectoryRecords& into);
  // Some directories never end: asked before each part of one.
  [[nodiscard]] std::optional<Failure> mustEnd(Batch& batch);
  // Whether a directory below the root that fails so counts as empty.
  [[nodiscard]] bool isForgiven(const std::string& path, int code);
  [[nodiscard]] std::string absolute(const std::string& path) const;
  [[nodiscard]] Failure failure(const char* operation, const std::string& path, int code) const;

  Dispatch& dispatch_;
  DirectoryReader& reader_;
  OpenTree& tree_;
  const ScanRequest& request_;
  ScanCollector& collector_;
  ScanStats& stats_;

  Mutex mutex_;
  ConditionVariable changed_;
  std::vector<Frame> stack_ GUARDED_BY(mutex_);
  int active_ GUARDED_BY(mutex_) = 0;  // workers that took a frame and haven't handed back what is in it
  std::optional<Error> failure_ GUARDED_BY(mutex_);
  SnapshotIndex::EntryBuckets buckets_ GUARDED_BY(mutex_);
};

}  // namespace quillmark
