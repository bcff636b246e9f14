// SnapshotMutationScope: which volumes are in the middle of a batch of snapshot changes. While a scope is open each single
// change stays quiet; whoever closes the last one tells clients once. A volume may be in two batches at once.
// Threads: thread-safe; a scope isn't tied to the thread that opened it.
#pragma once

#include <map>
#include <string>

#include "base/Uuid.h"
#include "platform/sync.h"

namespace quillmark {

class SnapshotMutationScope final {
 public:
  explicit SnapshotMutationScope(Threads& threads) : open_(threads) {}

  [[nodiscard]] bool isOpen(const std::string& volumeUUID);
  // Of a change to the snapshots: true while a scope is open, whose last exit then tells of it.
  [[nodiscard]] bool holdsBack(const std::string& volumeUUID);
  void enter(const std::string& volumeUUID);
  // True for the last exit, unless nothing was changed by anybody since the first entry; and for one without an enter().
  [[nodiscard]] bool leave(const std::string& volumeUUID, bool changed = true);

 private:
  struct Open {
    int depth = 0;
    bool changed = false;
  };
  // A key exists only while its depth is above 0.
  Guarded<std::map<VolumeUuid, Open>> open_;
};

}  // namespace quillmark
