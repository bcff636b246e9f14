// SnapshotProtection: which snapshots must not be deleted, as deleters and listings ask it.
// Threads: thread-safe.
#pragma once

#include <memory>
#include <set>

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
  // Waits for other deleters. Throws Error when the store can't be trusted.
  [[nodiscard]] virtual std::unique_ptr<ProtectionGuard> lock() = 0;
  [[nodiscard]] virtual std::set<Xid> protectedXIDs(const VolumeInfo& volume) = 0;
};

}  // namespace quillmark
