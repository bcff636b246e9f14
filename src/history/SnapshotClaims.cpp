#include "history/SnapshotClaims.h"

#include <algorithm>

namespace quillmark {

SnapshotClaims::Reading::Reading(SnapshotClaims& claims, Key key) : claims_(claims), key_(std::move(key)) {
  MutexLock lock(claims_.lock_);
  claims_.readings_.emplace(key_, unwanted_);
  *unwanted_ = claims_.claims_.contains(key_);
}

SnapshotClaims::Reading::~Reading() {
  MutexLock lock(claims_.lock_);
  const auto [first, last] = claims_.readings_.equal_range(key_);
  claims_.readings_.erase(std::find_if(first, last, [&](const auto& one) { return one.second == unwanted_; }));
  claims_.changed_.notifyAll();
}

void SnapshotClaims::claim(const Key& key, std::chrono::nanoseconds most) {
  MutexLock lock(lock_);
  ++claims_[key];
  const auto [first, last] = readings_.equal_range(key);
  std::for_each(first, last, [](const auto& one) { *one.second = true; });
  const MonotonicTime deadline = after(threads_.clock().monotonic(), most);
  while (readings_.contains(key) && changed_.waitUntil(lock_, deadline)) {
  }
}

void SnapshotClaims::release(const Key& key) {
  MutexLock lock(lock_);
  if (--claims_[key] == 0) claims_.erase(key);
  changed_.notifyAll();
}

bool SnapshotClaims::waitUntilReleased(const Key& key, std::chrono::nanoseconds most) {
  MutexLock lock(lock_);
  const MonotonicTime deadline = after(threads_.clock().monotonic(), most);
  while (claims_.contains(key)) {
    if (!changed_.waitUntil(lock_, deadline)) return !claims_.contains(key);
  }
  return true;
}

}  // namespace quillmark
