// SnapshotXIDResolutionCache: the XIDs of snapshots already resolved, under keys that change if the snapshot could be
// another one. One file for each volume; losing it costs one diskutil call.
// Threads: thread-safe; the lock is never held over file work.
// Errors:  none; a cache that can't be read is empty, one that can't be written is logged.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/Uuid.h"
#include "base/Xid.h"
#include "platform/HostPaths.h"
#include "platform/sync.h"
#include "snapshots/KernelSnapshotList.h"

namespace quillmark {

class PlatformLog;
class Posix;
class Random;

class SnapshotXIDResolutionCache final {
 public:
  SnapshotXIDResolutionCache(Threads& threads, Posix& posix, Random& random, PlatformLog& log, const HostPaths& paths);

  // In the order of the entries; nothing when one is unknown. Rows of snapshots that are gone are dropped, and the file
  // follows within a second of lookups: a batch of deletions, which looks before each, would write it as often.
  [[nodiscard]] std::optional<std::vector<Xid>> lookup(const std::string& volumeUUID,
                                                       const std::vector<RawSnapshotEntry>& entries);
  // Replaces what was known of the volume. Does nothing when the lengths differ.
  void store(const std::string& volumeUUID, const std::vector<RawSnapshotEntry>& entries, const std::vector<Xid>& xids);

 private:
  struct Key {
    std::uint64_t fileID = 0;  // first, so that comparing seldom comes to the names
    std::int64_t ctimeNS = 0;
    std::string name;
  };
  // The same, borrowed.
  struct KeyRef {
    std::uint64_t fileID = 0;
    std::int64_t ctimeNS = 0;
    std::string_view name;

    KeyRef(const Key& key);
    explicit KeyRef(const RawSnapshotEntry& entry);
    auto operator<=>(const KeyRef&) const = default;
  };
  struct Ascending {
    using is_transparent = void;
    bool operator()(const KeyRef& a, const KeyRef& b) const { return a < b; }
  };
  using Rows = std::map<Key, Xid, Ascending>;

  // Rows that were dropped and still stand in the file, which harms nobody.
  struct Dropped {
    bool areInFile = false;
    std::optional<MonotonicTime> lastWrite;
  };

  void loadIfNeeded(const VolumeUuid& volume) EXCLUDES(lock_);
  // Absent when there is no file of ours that can be used.
  [[nodiscard]] std::optional<Rows> readFile(const VolumeUuid& volume);
  [[nodiscard]] bool isWriteDueLocked(const VolumeUuid& volume) REQUIRES(lock_);
  void writeFile(const VolumeUuid& volume, const Rows& rows);
  [[nodiscard]] std::string pathOf(const VolumeUuid& volume) const;

  Clock& clock_;
  Posix& posix_;
  Random& random_;
  PlatformLog& log_;
  const std::string directory_;

  Mutex lock_;
  std::map<VolumeUuid, Rows> byVolume_ GUARDED_BY(lock_);
  std::set<VolumeUuid> loaded_ GUARDED_BY(lock_);
  std::map<VolumeUuid, Dropped> dropped_ GUARDED_BY(lock_);
};

}  // namespace quillmark
