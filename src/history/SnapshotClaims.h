// SnapshotClaims: lets whoever needs a snapshot for himself, to delete it or to mount it where people see it, have it at
// once. A scan that reads it is told to end, and none begins there as long as the claim stands.
// Threads: thread-safe.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "base/Uuid.h"
#include "platform/sync.h"

namespace quillmark {

class SnapshotClaims final {
 public:
  using Key = std::pair<VolumeUuid, std::string>;  // with the snapshot's name

  explicit SnapshotClaims(Threads& threads) : threads_(threads), lock_(threads), changed_(threads) {}

  // A scan's side: from before it mounts until its mount is gone.
  class Reading final {
   public:
    Reading(SnapshotClaims& claims, Key key);
    ~Reading();
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;
    // True also from the beginning, where a claim stands.
    [[nodiscard]] bool isUnwanted() const { return *unwanted_; }

   private:
    SnapshotClaims& claims_;
    const Key key_;
    const std::shared_ptr<std::atomic<bool>> unwanted_ = std::make_shared<std::atomic<bool>>(false);
  };

  // Returns once nobody reads the snapshot, or when the time has passed. Each claim ends with a release.
  void claim(const Key& key, std::chrono::nanoseconds most) EXCLUDES(lock_);
  void release(const Key& key) EXCLUDES(lock_);
  // False when a claim still stands after the time.
  bool waitUntilReleased(const Key& key, std::chrono::nanoseconds most) EXCLUDES(lock_);

 private:
  Threads& threads_;
  Mutex lock_;
  ConditionVariable changed_;
  std::multimap<Key, std::shared_ptr<std::atomic<bool>>> readings_ GUARDED_BY(lock_);
  std::map<Key, unsigned> claims_ GUARDED_BY(lock_);
};

}  // namespace quillmark
