// VolumeProtectionStore: which snapshots must not be deleted, by volume and XID. They stand in an attribute of the volume,
// which travels with it, and where that can't be written in a file of ours.
// Ownership: borrows the facilities, which must outlive it.
// Threads:   thread-safe; the lock is held over attributes and files, and by deleters from check to deletion. Who holds a
//            guard asks the guard.
// Errors:    throws Error{internalError}; once the file has failed from every operation, until the process ends.
// Invariant: memory changes only after the file is on disk. What can't be read is never taken for an empty set.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "platform/HostPaths.h"
#include "platform/sync.h"
#include "snapshots/SnapshotProtection.h"

namespace quillmark {

class PlatformLog;
class Posix;
class Random;
class VolumeAttributes;

class VolumeProtectionStore final : public SnapshotProtection {
 public:
  VolumeProtectionStore(Threads& threads, Posix& posix, Random& random, PlatformLog& log, VolumeAttributes& attributes,
                        const HostPaths& paths);

  // Once the file was read it waits for nobody: no health report waits for a deletion.
  void ensureLoaded() override EXCLUDES(lock_);
  [[nodiscard]] std::unique_ptr<ProtectionGuard> lock() override;
  // Fails while the volume's attribute can't be read or understood.
  [[nodiscard]] std::set<Xid> protectedXIDs(const VolumeInfo& volume) override EXCLUDES(lock_);
  bool setProtected(const VolumeInfo& volume, bool isProtected, FunctionRef<std::optional<Xid>()> xidOf) override
      EXCLUDES(lock_);

  // Entries that are keys of the map become its values. Listings call it, also the listings of those who hold the lock:
  // while it is held the change waits, and takes effect before anybody looks at the volume's set again.
  void migrateIdentities(const VolumeInfo& volume, const std::map<std::uint64_t, Xid>& fileIDToXID);
  [[nodiscard]] std::set<Xid> readProtectionAttribute(const VolumeInfo& volume) const;

 private:
  class Guard;
  using XidsByVolume = std::map<VolumeUuid, std::set<Xid>>;
  struct Migration {
    VolumeInfo volume;
    std::map<std::uint64_t, Xid> fileIDToXID;
  };

  void ensureLoadedLocked() REQUIRES(lock_);
  void loadLocked() REQUIRES(lock_);
  // For good: what it says is thrown.
  [[noreturn]] void degradeLocked(std::string description) REQUIRES(lock_);
  [[nodiscard]] std::set<Xid> protectedXIDsLocked(const VolumeInfo& volume) REQUIRES(lock_);
  bool changeLocked(const VolumeInfo& volume, Xid xid, bool isProtected) REQUIRES(lock_);
  void forgetDeletedLocked(const VolumeInfo& volume, Xid xid) REQUIRES(lock_);
  void forgetInAttribute(const VolumeInfo& volume, Xid xid) const;
  void forgetLocallyLocked(const VolumeInfo& volume, Xid xid) REQUIRES(lock_);
  void applyMigrationLocked(const VolumeUuid& volume) REQUIRES(lock_);
  void migrateLocked(const Migration& migration) REQUIRES(lock_);
  [[nodiscard]] bool writeProtectionAttribute(const VolumeInfo& volume, const std::set<Xid>& xids) const;
  [[nodiscard]] std::set<Xid> localSetLocked(const VolumeUuid& volume) const REQUIRES(lock_);
  // Does nothing when the set is what is stored.
  void persistLocked(const VolumeUuid& volume, std::set<Xid> xids) REQUIRES(lock_);

  Posix& posix_;
  Random& random_;
  PlatformLog& log_;
  VolumeAttributes& attributes_;
  const std::string path_;

  // The newest one of each volume that hasn't taken effect; its lock comes after lock_.
  Guarded<std::map<VolumeUuid, Migration>> waiting_;

  Mutex lock_;
  XidsByVolume localByVolume_ GUARDED_BY(lock_);
  bool localLoaded_ GUARDED_BY(lock_) = false;
  std::optional<std::string> localLoadFailureDescription_ GUARDED_BY(lock_);

  // The same two for those who don't hold lock_; its lock comes after lock_.
  struct Verdict {
    bool loaded = false;
    std::optional<std::string> failure;
  };
  Guarded<Verdict> verdict_;
};

}  // namespace quillmark
