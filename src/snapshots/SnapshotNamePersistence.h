// SnapshotNamePersistence: the names under which people see snapshots, by volume and snapshot name, in one file.
// Ownership: borrows the facilities, which must outlive it.
// Threads:   thread-safe; the lock is held over the file.
// Errors:    handed back. A file that can't be read shows no names, and is never overwritten by this process.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "platform/HostPaths.h"
#include "platform/sync.h"
#include "snapshots/SnapshotLabels.h"

namespace quillmark {

class PlatformLog;
class Posix;
class Random;

class SnapshotNamePersistence final : public SnapshotDisplayNames {
 public:
  SnapshotNamePersistence(Threads& threads, Posix& posix, Random& random, PlatformLog& log, const HostPaths& paths);

  [[nodiscard]] std::optional<std::string> displayName(const VolumeUuid& volume, const std::string& snapshot) override
      EXCLUDES(lock_);
  [[nodiscard]] std::optional<Error> setDisplayName(const VolumeUuid& volume, const std::string& snapshot,
                                                    const std::string& displayName) override EXCLUDES(lock_);
  void forgetDeleted(const VolumeUuid& volume, const std::string& snapshot) override EXCLUDES(lock_);

 private:
  using NamesByVolume = std::map<VolumeUuid, std::map<std::string, std::string>>;

  void loadLocked() REQUIRES(lock_);
  // True when the name was there.
  bool removeLocked(const VolumeUuid& volume, const std::string& snapshot) REQUIRES(lock_);
  [[nodiscard]] std::optional<Error> writeLocked() REQUIRES(lock_);

  Posix& posix_;
  Random& random_;
  PlatformLog& log_;
  const std::string path_;

  Mutex lock_;
  NamesByVolume byVolume_ GUARDED_BY(lock_);
  bool loaded_ GUARDED_BY(lock_) = false;
  std::optional<std::string> loadFailureDescription_ GUARDED_BY(lock_);
};

}  // namespace quillmark
