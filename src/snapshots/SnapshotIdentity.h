// SnapshotIdentity: from the kernel's list to records with XIDs, asking diskutil as rarely as possible. One for the
// process: the lock around diskutil is its.
// Threads: thread-safe. The resolution lock comes before the cache's and is held across diskutil, so that a slow volume
//          delays others by at most the deadline; the migration callback runs after it is released.
// Errors:  throws snapshotListFailed, or what the listing or the migration throws.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "base/FunctionRef.h"
#include "platform/HostPaths.h"
#include "platform/sync.h"
#include "snapshots/BoundedProcessRunner.h"
#include "snapshots/DiskutilSnapshotCatalog.h"
#include "snapshots/SnapshotXIDResolutionCache.h"
#include "snapshots/VolumeInfo.h"
#include "wire/Records.h"

namespace quillmark {

struct SnapshotReference {
  std::string name;
  Xid xid;
};

// Stored data that still names snapshots by file ID moves over to XIDs; failing fails the listing.
using SnapshotIdentityMigration = std::function<void(const VolumeInfo&, const std::map<std::uint64_t, Xid>&)>;

class SnapshotIdentity final {
 public:
  using ListKernel = FunctionRef<std::vector<RawSnapshotEntry>()>;

  // What the kernel's file IDs are on this platform. Where they are the XIDs, an answer of diskutil that says otherwise
  // speaks of another moment, when somebody had renamed snapshots, and isn't believed.
  enum class FileIds { areXids, areOfTheirOwn };

  SnapshotIdentity(Dispatch& dispatch, Processes& processes, PropertyLists& propertyLists, Posix& posix, Random& random,
                   PlatformLog& log, const HostPaths& paths, FileIds fileIds);

  // One record for each entry of the kernel's list, in its order. The migration may be empty.
  [[nodiscard]] std::vector<SnapshotRecord> resolve(const VolumeInfo& volume, ListKernel listKernel,
                                                    const SnapshotIdentityMigration& migration);

 private:
  struct Resolved {
    std::vector<RawSnapshotEntry> entries;
    std::vector<Xid> xids;
  };
  [[nodiscard]] Resolved resolveIdentities(const VolumeInfo& volume, ListKernel listKernel);
  [[nodiscard]] DiskutilSnapshotCatalog runDiskutil(const std::string& bsdName);

  PropertyLists& propertyLists_;
  const std::string diskutil_;
  const FileIds fileIds_;
  BoundedProcessRunner runner_;
  SnapshotXIDResolutionCache cache_;
  Mutex resolutionLock_;
};

// The records of the references, in their order; throws snapshotNotFound for one that is gone or bears another name.
[[nodiscard]] std::vector<SnapshotRecord> matchReferences(const VolumeInfo& volume,
                                                          const std::vector<SnapshotRecord>& records,
                                                          const std::vector<SnapshotReference>& references);

}  // namespace quillmark
