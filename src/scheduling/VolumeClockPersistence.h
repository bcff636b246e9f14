// VolumeClockPersistence: when this machine first saw each volume, and whether people were told of what it held then.
// Ownership: borrows the facilities, which must outlive it.
// Threads:   thread-safe; the lock is held over the file.
// Errors:    none. A file that can't be read counts as empty, so that every volume looks new and gets its grace anew; after
//            a failed write the memory is ahead of the file.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "base/Date.h"
#include "base/Uuid.h"
#include "platform/HostPaths.h"
#include "platform/sync.h"
#include "scheduling/StateFile.h"

namespace quillmark {

class PlatformLog;

class VolumeClockPersistence final {
 public:
  struct Entry {
    Date firstSeenAt;
    bool discoveryNoticeSent = false;
    bool operator==(const Entry&) const = default;
  };

  VolumeClockPersistence(Threads& threads, Posix& posix, Random& random, PlatformLog& log, const HostPaths& paths);

  // The volume's first sighting, which is now if there was none.
  Date noteSeen(const VolumeUuid& volume, Date now) EXCLUDES(lock_);
  [[nodiscard]] std::optional<Date> firstSeen(const VolumeUuid& volume) EXCLUDES(lock_);
  // True while the volume has been seen and its notice not sent.
  [[nodiscard]] bool discoveryPending(const VolumeUuid& volume) EXCLUDES(lock_);
  void markDiscoveryNoticeSent(const VolumeUuid& volume) EXCLUDES(lock_);

 private:
  using Entries = std::map<std::string, Entry>;

  void loadLocked() REQUIRES(lock_);
  // Null when the volume was never seen.
  [[nodiscard]] Entry* entryLocked(const VolumeUuid& volume) REQUIRES(lock_);
  void writeLocked() REQUIRES(lock_);

  PlatformLog& log_;
  const StateFile file_;

  Mutex lock_;
  Entries entries_ GUARDED_BY(lock_);
  bool loaded_ GUARDED_BY(lock_) = false;
};

}  // namespace quillmark
