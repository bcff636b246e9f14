// SnapshotTagStore: the tags that people give to snapshots, by volume and XID. They stand in an attribute of the volume,
// and where that can't be written in a file of ours; of two tags the attribute's counts.
// Ownership: borrows the facilities, which must outlive it.
// Threads:   thread-safe; the lock is held over attributes and files.
// Errors:    throws Error; there is no state of failure: what couldn't be read is read again by the next operation.
// Units:     a tag has at most 8,192 bytes.
// Invariant: memory changes only after the file is on disk.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "base/SysResult.h"
#include "platform/HostPaths.h"
#include "platform/sync.h"
#include "snapshots/SnapshotLabels.h"

namespace quillmark {

class Posix;
class Random;
class VolumeAttributes;

class SnapshotTagStore final : public SnapshotTags {
 public:
  SnapshotTagStore(Threads& threads, Posix& posix, Random& random, VolumeAttributes& attributes,
                   const HostPaths& paths);

  // Without those of an attribute that can't be read.
  [[nodiscard]] std::map<Xid, std::string> tags(const VolumeInfo& volume) override EXCLUDES(lock_);
  Xid setTag(const VolumeInfo& volume, const std::optional<std::string>& tag,
             FunctionRef<std::optional<Xid>()> xidOf) override EXCLUDES(lock_);
  void forgetDeleted(const VolumeInfo& volume, Xid xid) override EXCLUDES(lock_);

 private:
  using Texts = std::map<std::string, std::string>;

  void loadLocked() REQUIRES(lock_);
  void setTagLocked(const VolumeInfo& volume, const std::string& key, const std::optional<std::string>& tag)
      REQUIRES(lock_);
  void moveToLocalLocked(const VolumeInfo& volume, Texts inAttribute, const std::string& key,
                         const std::optional<std::string>& tag) REQUIRES(lock_);
  [[nodiscard]] Texts readAttribute(const VolumeInfo& volume) const;
  [[nodiscard]] SysStatus writeAttribute(const VolumeInfo& volume, const Texts& tags) const;
  [[nodiscard]] Texts localTagsLocked(const VolumeUuid& volume) const REQUIRES(lock_);
  // Does nothing when the tags are what is stored.
  void persistLocked(const VolumeUuid& volume, Texts tags) REQUIRES(lock_);

  Posix& posix_;
  Random& random_;
  VolumeAttributes& attributes_;
  const std::string path_;

  Mutex lock_;
  std::map<VolumeUuid, Texts> localByVolume_ GUARDED_BY(lock_);
  bool localLoaded_ GUARDED_BY(lock_) = false;
};

}  // namespace quillmark
