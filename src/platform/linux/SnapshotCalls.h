// LinuxSnapshotCalls: snapshots as read-only subvolumes of btrfs, kept at the top level where users don't come.
// Ownership: borrows the dispatch layer and the names, which must outlive it. An OpenVolume holds a descriptor of the
//            volume's root, which keeps the volume from being unmounted as long as it lives.
// Threads:   thread-safe; one OpenVolume serves one thread at a time.
// Errors:    errno; beside those of the interface: EPERM for a place of ours that isn't (owner 0, mode 0700, a plain
//            directory of the top level), for the default subvolume and for a snapshot pinned by an immutable flag;
//            EROFS when no user has the file system mounted writable; ESTALE when a mount changed under the operation.
#pragma once

#include <map>
#include <memory>

#include "base/ThreadSafety.h"
#include "platform/SnapshotCalls.h"
#include "platform/dispatch.h"
#include "platform/linux/BtrfsMount.h"
#include "platform/linux/DeviceNames.h"
#include "platform/linux/MountNamespaces.h"
#include "platform/linux/SnapshotList.h"
#include "platform/linux/SnapshotReclaimer.h"

namespace quillmark::os {

class LinuxSnapshotCalls final : public SnapshotCalls {
 public:
  LinuxSnapshotCalls(Dispatch& dispatch, DeviceNames& names);
  ~LinuxSnapshotCalls() override;

  SysResult<std::unique_ptr<OpenVolume>> open(const std::string& mountPoint, const VolumeUuid& expected) override;
  SysStatus fs_snapshot_create(OpenVolume& volume, const std::string& name) override EXCLUDES(mutex_);
  SysStatus fs_snapshot_delete(OpenVolume& volume, const std::string& name, Xid meant) override EXCLUDES(mounting_);
  std::unique_ptr<DeletionBatch> beginDeletions() override EXCLUDES(mutex_);
  SysResult<int> fs_snapshot_list(OpenVolume& volume, const AttributeList& attributes,
                                  std::span<std::byte> buffer) override;
  SysStatus fs_snapshot_mount(OpenVolume& volume, const std::string& directory, const std::string& name, Xid meant,
                              std::uint32_t mountFlags) override EXCLUDES(mounting_);
  SysStatus unmount(const std::string& path, bool force) override;
  SysResult<FileSystemStatus> statfs(const std::string& path) override;
  SysResult<std::vector<FileSystemStatus>> getmntinfo() override;

  bool waitForSpace(const std::string& mountPoint, std::chrono::nanoseconds duration) override;
  SysResult<std::map<Xid, std::uint64_t>> changedSnapshots(OpenVolume& volume) override;
  SysResult<std::uint64_t> lastChange(const std::string& path) override;
  SysResult<UnservedSubvolumes> unservedSubvolumes(OpenVolume& volume) override;

  // The same for all volumes.
  [[nodiscard]] bool waitForSpace(std::chrono::nanoseconds duration) { return reclaimer_.waitFor(duration); }

 private:
  class Batch;
  struct MountedElsewhere {
    SubvolumeIds subvolumes;
    MonotonicTime readAt;
  };

  // In any mount namespace, ours among them.
  [[nodiscard]] SysResult<bool> isMounted(DeviceNumber device, btrfs::SubvolumeId subvolume) EXCLUDES(mutex_);
  // Null when it isn't known, or not lately enough.
  [[nodiscard]] const SubvolumeIds* knownLocked(DeviceNumber device) REQUIRES(mutex_);
  void endDeletions() EXCLUDES(mutex_);
  [[nodiscard]] std::shared_ptr<Mutex> creationLock(const Uuid& fsid) EXCLUDES(mutex_);

  Dispatch& dispatch_;
  DeviceNames& names_;
  SnapshotReclaimer reclaimer_;
  Mutex mounting_;  // held from the question whether a snapshot is mounted until it is mounted, or destroyed
  Mutex mutex_;
  // One per file system ever served: snapshots made one after the other get transactions of their own.
  std::map<Uuid, std::shared_ptr<Mutex>> creationLocks_ GUARDED_BY(mutex_);
  unsigned batches_ GUARDED_BY(mutex_) = 0;
  // What the last look found; empty without a batch.
  std::map<DeviceNumber, MountedElsewhere> mountedElsewhere_ GUARDED_BY(mutex_);
};

}  // namespace quillmark::os
