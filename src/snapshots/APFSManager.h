// APFSManager: the one place that talks to the kernel about snapshots. No state but its log handle: every operation opens
// the volume, does its work on the calling thread, and closes it again.
// Ownership: borrows its services, which outlive it.
// Threads:   any; blocking. Callbacks run on the caller's thread.
// Errors:    throws Error with the codes of wire/QuillmarkError.h, unless said otherwise.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/HostPaths.h"
#include "scheduling/rules/SnapshotNameInfo.h"
#include "snapshots/KernelSnapshotList.h"
#include "snapshots/SnapshotIdentity.h"
#include "snapshots/VolumeInfo.h"
#include "wire/QuillmarkError.h"
#include "wire/Records.h"

namespace quillmark {

class Disks;
class OpenVolume;
class PlatformLog;
class Posix;
class SnapshotCalls;

// Installed once, before anybody mutates. Both may be empty.
struct SnapshotCallbacks {
  // After every successful create and delete, before the operation returns; must not wait for that volume's queue.
  std::function<void(const std::string& volumeUUID)> inventoryChanged;
  SnapshotIdentityMigration identityMigration;
};

// What all managers of a process share.
struct SnapshotServices {
  SnapshotCalls& calls;
  Disks& disks;
  Posix& posix;
  PlatformLog& log;
  HostPaths paths;
  SnapshotIdentity& identity;
  SnapshotCallbacks callbacks;
};

class APFSManager final {
 public:
  APFSManager(SnapshotServices& services, std::string_view logCategory) : services_(services), category_(logCategory) {}

  [[nodiscard]] VolumeInfo resolveVolume(const std::string& uuid);
  // The name actually used: a taken one gets the label suffixes "-2" to "-8".
  std::string createSnapshot(const VolumeInfo& volume, const std::string& label, SnapshotNameInfo::Kind kind,
                             Date date);
  // The snapshot that bears the name and the XID, and no other.
  void deleteSnapshot(const VolumeInfo& volume, const SnapshotReference& snapshot);
  // In the kernel's order, all three.
  [[nodiscard]] std::vector<RawSnapshotEntry> listRawSnapshots(const VolumeInfo& volume);
  [[nodiscard]] std::vector<SnapshotRecord> listSnapshots(const VolumeInfo& volume);
  // Those that aren't as they were made (SnapshotCalls.h).
  [[nodiscard]] std::map<Xid, std::uint64_t> changedSnapshots(const VolumeInfo& volume);
  [[nodiscard]] std::vector<SnapshotRecord> verifySnapshots(const VolumeInfo& volume,
                                                            const std::vector<SnapshotReference>& references);
  // The caller has composed and checked the path.
  void mountSnapshot(const VolumeInfo& volume, const SnapshotReference& snapshot, const std::string& path);
  // Unmounts and removes the directory; a path that is no mount point, or is gone, counts as done. A busy one is forced.
  void unmountSnapshot(const std::string& path, bool force);
  // Takes away what an earlier run's indexing left mounted, except the paths to keep. Never fails.
  void cleanStaleIndexMounts(const std::set<std::string>& keeping);

 private:
  [[nodiscard]] std::unique_ptr<OpenVolume> open(const VolumeInfo& volume, QuillmarkErrorCode onFailure);
  void ensureMountRoot(const std::string& path);
  void removeStaleMount(const std::string& path);

  SnapshotServices& services_;
  const std::string category_;
};

}  // namespace quillmark
