// SnapshotProtection: which snapshots must not be deleted, as deleters, listings and clients ask it.
// Threads: thread-safe.
#pragma once

#include <memory>
#include <optional>
#include <set>

#include "base/FunctionRef.h"
#include "base/Xid.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

// Held by a deleter from its check to the end of its deletion: nothing can become protected in between.
class ProtectionGuard {
 public:
  virtual ~ProtectionGuard() = default;
  // Throws Error when protection can't be known.
  [[nodiscard]] virtual std::set<Xid> protectedXIDs(const VolumeInfo& volume) = 0;
  // Never fails.
  virtual void forgetDeleted(const VolumeInfo& volume, Xid xid) = 0;
};

class SnapshotProtection {
 public:
  virtual ~SnapshotProtection() = default;
  // Throws Error while the store can't be trusted.
  virtual void ensureLoaded() = 0;
  // Waits for other deleters. Throws Error as ensureLoaded does.
  [[nodiscard]] virtual std::unique_ptr<ProtectionGuard> lock() = 0;
  [[nodiscard]] virtual std::set<Xid> protectedXIDs(const VolumeInfo& volume) = 0;
  // True when anything changed. `xidOf` is asked under the lock, so that it decides whether the snapshot still exists.
  virtual bool setProtected(const VolumeInfo& volume, bool isProtected, FunctionRef<std::optional<Xid>()> xidOf) = 0;
};

}  // namespace quillmark
