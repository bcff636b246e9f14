#include "platform/sim/SimSnapshotCalls.h"

#include <algorithm>
#include <cerrno>

#include "platform/linux/SnapshotNames.h"

namespace quillmark::sim {
namespace {

class SimOpenVolume final : public OpenVolume {
 public:
  explicit SimOpenVolume(const Uuid& volume) : uuid(volume) {}

  const Uuid uuid;
  std::optional<std::vector<SnapshotListEntry>> listing;
  std::size_t next = 0;
};

// Every OpenVolume that reaches us was made by open().
SimOpenVolume& own(OpenVolume& volume) { return static_cast<SimOpenVolume&>(volume); }

bool isMeant(SimVolumes& volumes, const Uuid& volume, const std::string& name, Xid meant) {
  const std::vector<SimSnapshot> snapshots = volumes.snapshots(volume);
  return std::any_of(snapshots.begin(), snapshots.end(),
                     [&](const SimSnapshot& snapshot) { return snapshot.name == name && snapshot.xid == meant; });
}

}  // namespace

SysResult<std::unique_ptr<OpenVolume>> SimSnapshotCalls::open(const std::string& mountPoint,
                                                              const VolumeUuid& expected) {
  if (const SysStatus begun = volumes_.begin(SimCall::open, mountPoint); !begun) return Errno{begun.error()};
  std::optional<Uuid> mounted;
  volumes_.visit([&](const SimVolume& volume) {
    if (!mounted && volume.mountPoint == mountPoint) mounted = volume.uuid;
  });
  if (!mounted) return Errno{ENOENT};
  if (VolumeUuid(mounted->lower()) != expected) return Errno{ESTALE};
  return std::unique_ptr<OpenVolume>(std::make_unique<SimOpenVolume>(*mounted));
}

SysStatus SimSnapshotCalls::fs_snapshot_create(OpenVolume& volume, const std::string& name) {
  if (const SysStatus begun = volumes_.begin(SimCall::create, name); !begun) return begun;
  if (const auto fileName = os::placeFileName(name); !fileName) return Errno{fileName.error()};
  const auto made = volumes_.addSnapshot(own(volume).uuid, name, clock_.now());
  if (!made) return Errno{made.error()};
  return {};
}

SysStatus SimSnapshotCalls::fs_snapshot_delete(OpenVolume& volume, const std::string& name, Xid meant) {
  if (const SysStatus begun = volumes_.begin(SimCall::remove, name); !begun) return begun;
  if (!isMeant(volumes_, own(volume).uuid, name, meant)) return Errno{ENOENT};
  return volumes_.removeSnapshot(own(volume).uuid, name);
}

SysResult<int> SimSnapshotCalls::fs_snapshot_list(OpenVolume& volume, const AttributeList& attributes,
                                                  std::span<std::byte> buffer) {
  SimOpenVolume& opened = own(volume);
  if (const SysStatus begun = volumes_.begin(SimCall::list, opened.uuid.lower()); !begun) return Errno{begun.error()};
  if (!opened.listing) {
    opened.listing.emplace();
    for (const SimSnapshot& snapshot : volumes_.snapshots(opened.uuid)) {
      opened.listing->push_back({snapshot.name, snapshot.createdSeconds, snapshot.createdNanoseconds, snapshot.fileId});
    }
  }
  return writeSnapshotRecords(*opened.listing, opened.next, attributes, buffer);
}

SysStatus SimSnapshotCalls::fs_snapshot_mount(OpenVolume& volume, const std::string& directory, const std::string& name,
                                              Xid meant, std::uint32_t mountFlags) {
  if (const SysStatus begun = volumes_.begin(SimCall::mount, directory); !begun) return begun;
  if (!isMeant(volumes_, own(volume).uuid, name, meant)) return Errno{ENOENT};
  return volumes_.mount(own(volume).uuid, directory, name, mountFlags);
}

SysStatus SimSnapshotCalls::unmount(const std::string& path, bool force) {
  if (const SysStatus begun = volumes_.begin(SimCall::unmount, path); !begun) return begun;
  return volumes_.unmount(path, force);
}

SysResult<FileSystemStatus> SimSnapshotCalls::statfs(const std::string& path) {
  if (const SysStatus begun = volumes_.begin(SimCall::statfs, path); !begun) return Errno{begun.error()};
  return volumes_.status(path);
}

SysResult<std::vector<FileSystemStatus>> SimSnapshotCalls::getmntinfo() {
  std::vector<FileSystemStatus> statuses;
  for (const SimVolume& volume : volumes_.volumes()) statuses.push_back(volumes_.status(volume.mountPoint));
  for (const SimVolumes::Mount& mount : volumes_.mounts()) statuses.push_back(volumes_.status(mount.directory));
  return statuses;
}

SysResult<std::map<Xid, std::uint64_t>> SimSnapshotCalls::changedSnapshots(OpenVolume& volume) {
  const Uuid& uuid = own(volume).uuid;
  if (const SysStatus begun = volumes_.begin(SimCall::list, uuid.lower()); !begun) return Errno{begun.error()};
  std::map<Xid, std::uint64_t> changed;
  for (const SimSnapshot& snapshot : volumes_.snapshots(uuid)) {
    if (snapshot.lastChange > 0) changed.emplace(snapshot.xid, snapshot.lastChange);
  }
  return changed;
}

SysResult<std::uint64_t> SimSnapshotCalls::lastChange(const std::string& path) {
  if (const SysStatus begun = volumes_.begin(SimCall::statfs, path); !begun) return Errno{begun.error()};
  for (const SimVolumes::Mount& mount : volumes_.mounts()) {
    if (mount.directory != path) continue;
    for (const SimSnapshot& snapshot : volumes_.snapshots(mount.volume)) {
      if (snapshot.xid == mount.xid) return snapshot.lastChange;
    }
  }
  return Errno{EINVAL};
}

bool SimSnapshotCalls::waitForSpace(const std::string& mountPoint, std::chrono::nanoseconds) {
  if (!volumes_.begin(SimCall::waitForSpace, mountPoint)) return false;
  volumes_.returnSpace(mountPoint);
  return true;
}

}  // namespace quillmark::sim
