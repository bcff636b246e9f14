// SnapshotCalls: the platform's snapshot and mount calls, as the logic asks for them.
// Names are text (platform/NameText.h); XIDs, file IDs and record formats are described at each call.
// Threads: thread-safe; every call is synchronous and may wait for the disk.
// Errors:  errno. A backend answers with the platform's own meaning: EEXIST for a name taken, EBUSY for a snapshot that
//          is mounted or in use, ERANGE for a buffer too small, EINVAL for a path that is no mount point.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/SysResult.h"
#include "base/Uuid.h"
#include "base/Xid.h"
#include "platform/UnservedSubvolumes.h"

namespace quillmark {

// An open volume. Closed with its owner; nothing of it outlives the operation it was opened for.
class OpenVolume {
 public:
  virtual ~OpenVolume() = default;
};

// What a listing asks for: getattrlist's group bits.
struct AttributeList {
  std::uint16_t bitmapCount = 0;
  std::uint32_t common = 0;
};
inline constexpr std::uint32_t attrCmnReturnedAttrs = 0x80000000;
inline constexpr std::uint32_t attrCmnFileId = 0x02000000;
inline constexpr std::uint32_t attrCmnCreationTime = 0x00000200;
inline constexpr std::uint32_t attrCmnName = 0x00000001;

// A snapshot as backends list it.
struct SnapshotListEntry {
  std::string name;
  std::int64_t createdSeconds = 0;  // since 1970
  std::int64_t createdNanoseconds = 0;
  std::uint64_t fileId = 0;
};
// For backends: writes the records of as many entries as fit from `next` on, moves `next` past them and answers how
// many; 0 when none is left. EINVAL for attributes other than all those above.
[[nodiscard]] SysResult<int> writeSnapshotRecords(std::span<const SnapshotListEntry> entries, std::size_t& next,
                                                  const AttributeList& attributes, std::span<std::byte> buffer);

// Flags of a mount, as passed and as reported.
enum MountFlag : std::uint32_t {
  mntReadOnly = 0x1,
  mntNoSuid = 0x8,
  mntNoDev = 0x10,
  mntContentProtection = 0x80,
  mntIgnoreOwnership = 0x200000,
};

// What statfs tells of the mount that holds a path.
struct FileSystemStatus {
  std::uint32_t flags = 0;  // MountFlag bits
  std::string fstypename;   // "apfs" for what is ours to serve
  std::string mntonname;    // mount point
  std::string mntfromname;  // "<snapshot name>@/dev/<device>" for a mounted snapshot
  std::uint64_t blockSize = 0;
  std::uint64_t blocks = 0;
  std::uint64_t availableBlocks = 0;
};

// Deletions that belong together. While one lives, what takes long to ask for each may be known from up to a second ago:
// what is mounted where only other processes see it.
class DeletionBatch {
 public:
  virtual ~DeletionBatch() = default;
};

class SnapshotCalls {
 public:
  virtual ~SnapshotCalls() = default;

  // Opens the volume's root for reading. ESTALE when another volume than the expected one is mounted there.
  [[nodiscard]] virtual SysResult<std::unique_ptr<OpenVolume>> open(const std::string& mountPoint,
                                                                    const VolumeUuid& expected) = 0;

  [[nodiscard]] virtual SysStatus fs_snapshot_create(OpenVolume& volume, const std::string& name) = 0;
  // EBUSY while the snapshot is mounted anywhere or being read by us. ENOENT when it is gone, or when the name has passed
  // to another snapshot than the one meant.
  [[nodiscard]] virtual SysStatus fs_snapshot_delete(OpenVolume& volume, const std::string& name, Xid meant) = 0;
  // Null where every deletion asks for itself.
  [[nodiscard]] virtual std::unique_ptr<DeletionBatch> beginDeletions() { return nullptr; }
  // Writes whole records and answers how many, 0 at the end; calls on one open volume go on where the last one stopped.
  // A record: u32 length; u32[5] returned attribute groups; i32 offset (from byte 24) and u32 length of the name;
  // i64 seconds and i64 nanoseconds of the creation time since 1970; u64 file ID; the name's UTF-8 with a closing NUL.
  // Host byte order. ERANGE when not even one fits.
  [[nodiscard]] virtual SysResult<int> fs_snapshot_list(OpenVolume& volume, const AttributeList& attributes,
                                                        std::span<std::byte> buffer) = 0;
  // EBUSY when that snapshot is mounted already, ENOENT as for deletion.
  [[nodiscard]] virtual SysStatus fs_snapshot_mount(OpenVolume& volume, const std::string& directory,
                                                    const std::string& name, Xid meant, std::uint32_t mountFlags) = 0;
  // With force the path goes at once; who has files open there goes on reading.
  [[nodiscard]] virtual SysStatus unmount(const std::string& path, bool force) = 0;
  [[nodiscard]] virtual SysResult<FileSystemStatus> statfs(const std::string& path) = 0;
  // The same of every mounted volume and snapshot.
  [[nodiscard]] virtual SysResult<std::vector<FileSystemStatus>> getmntinfo() = 0;
  // Waits until the space of the snapshots that were deleted on the volume mounted there is back, or can't be got back
  // now; false when the time passed first. At once where deleting gives it back.
  [[nodiscard]] virtual bool waitForSpace(const std::string& mountPoint, std::chrono::nanoseconds duration);
  // Snapshots that somebody wrote to after they were made, by making them writable for a while: the number of the last
  // change, which ascends. What was done in the last half minute may be missing.
  [[nodiscard]] virtual SysResult<std::map<Xid, std::uint64_t>> changedSnapshots(OpenVolume& volume);
  // The same of the snapshot mounted there, as it is now; 0 when it is as it was made.
  [[nodiscard]] virtual SysResult<std::uint64_t> lastChange(const std::string& path);
  // What listings of snapshots don't tell; empty where there can be no such thing.
  [[nodiscard]] virtual SysResult<UnservedSubvolumes> unservedSubvolumes(OpenVolume& volume);
};

}  // namespace quillmark
