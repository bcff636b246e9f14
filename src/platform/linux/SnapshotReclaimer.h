// SnapshotReclaimer: brings back the space of destroyed snapshots now, not some commit intervals later. Commits, waits
// until the cleaner has taken the snapshots away, commits again.
// Ownership: its work holds what it needs; dropping the reclaimer lets running work end by itself.
// Threads:   thread-safe. Works on one serial queue per file system, outside every lock, while there is something to do.
// Invariant: holds a mount for the length of one look or one commit only, and none between; each begins with the
//            question whether a user still has the file system mounted writable, and ends the work if not. So an
//            unmount never waits for it and the device is free as soon as a commit that is under way has ended.
#pragma once

#include <chrono>
#include <map>
#include <memory>

#include "base/ThreadSafety.h"
#include "platform/dispatch.h"
#include "platform/linux/BtrfsMount.h"

namespace quillmark::os {

class SnapshotReclaimer final {
 public:
  explicit SnapshotReclaimer(Dispatch& dispatch);
  ~SnapshotReclaimer();
  SnapshotReclaimer(const SnapshotReclaimer&) = delete;
  SnapshotReclaimer& operator=(const SnapshotReclaimer&) = delete;

  // Call it after the snapshot was destroyed. Never waits.
  void add(const FileSystemSource& source, const btrfs::Subvolume& snapshot);
  // Waits until nothing is under way on any file system; false when the time passed first.
  [[nodiscard]] bool waitFor(std::chrono::nanoseconds duration);
  // On this one.
  [[nodiscard]] bool waitFor(const Uuid& fsid, std::chrono::nanoseconds duration) EXCLUDES(mutex_);

 private:
  class Work;

  Dispatch& dispatch_;
  const std::shared_ptr<Group> underWay_;
  Mutex mutex_;
  std::map<Uuid, std::shared_ptr<Work>> works_ GUARDED_BY(mutex_);  // one per file system ever served
};

}  // namespace quillmark::os
