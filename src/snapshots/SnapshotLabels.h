// What people attach to snapshots: tags by XID, display names by snapshot name.
// Threads: thread-safe.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "base/Error.h"
#include "base/FunctionRef.h"
#include "base/Xid.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

class SnapshotTags {
 public:
  virtual ~SnapshotTags() = default;
  // Throws Error when they can't be read.
  [[nodiscard]] virtual std::map<Xid, std::string> tags(const VolumeInfo& volume) = 0;
  // An absent tag removes it. `xidOf` is asked under the lock, so that it decides whether the snapshot still exists.
  // Throws Error; then the old tag shows, or the new one where it had reached the disk.
  virtual Xid setTag(const VolumeInfo& volume, const std::optional<std::string>& tag,
                     FunctionRef<std::optional<Xid>()> xidOf) = 0;
  // Never fails.
  virtual void forgetDeleted(const VolumeInfo& volume, Xid xid) = 0;
};

class SnapshotDisplayNames {
 public:
  virtual ~SnapshotDisplayNames() = default;
  [[nodiscard]] virtual std::optional<std::string> displayName(const VolumeUuid& volume,
                                                               const std::string& snapshot) = 0;
  // Blank text removes the name. Hands its failure back.
  [[nodiscard]] virtual std::optional<Error> setDisplayName(const VolumeUuid& volume, const std::string& snapshot,
                                                            const std::string& displayName) = 0;
  // Never fails.
  virtual void forgetDeleted(const VolumeUuid& volume, const std::string& snapshot) = 0;
};

}  // namespace quillmark
