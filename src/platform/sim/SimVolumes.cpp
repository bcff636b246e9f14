#include "platform/sim/SimVolumes.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace quillmark::sim {
namespace {

template <class Snapshots>
auto withName(Snapshots& snapshots, const std::string& name) {
  return std::find_if(snapshots.begin(), snapshots.end(),
                      [&](const SimSnapshot& snapshot) { return snapshot.name == name; });
}

bool contains(const std::string& mountPoint, const std::string& path) {
  if (mountPoint == "/" || path == mountPoint) return true;
  return path.starts_with(mountPoint) && path[mountPoint.size()] == '/';
}

SimSnapshot makeSnapshot(const std::string& name, Xid xid, Date created) {
  const double seconds = std::floor(created.secondsSince1970());
  return {.name = name,
          .xid = xid,
          .fileId = xid.value,
          .createdSeconds = static_cast<std::int64_t>(seconds),
          .createdNanoseconds = static_cast<std::int64_t>((created.secondsSince1970() - seconds) * 1e9)};
}

DiskEvent eventOf(DiskEvent::Kind kind, const SimVolume& volume) {
  return {kind, volume.mountPoint, volume.description.volumeKind, volume.description.mediaBsdName};
}

}  // namespace

SimVolume makeSimVolume(const Uuid& uuid, const std::string& name, const std::string& mountPoint,
                        const std::string& bsdName) {
  SimVolume volume;
  volume.uuid = uuid;
  volume.mountPoint = mountPoint;
  volume.description.volumeKind = "apfs";
  volume.description.volumeName = name;
  volume.description.volumePath = mountPoint;
  volume.description.volumeUuid = uuid;
  volume.description.mediaBsdName = bsdName;
  volume.description.mediaWritable = true;
  volume.description.deviceInternal = true;
  volume.description.deviceProtocol = "NVMe";
  return volume;
}

SimVolumes::SimVolumes() = default;

SimVolume* SimVolumes::find(const Uuid& volume) {
  const auto found = std::find_if(volumes_.begin(), volumes_.end(),
                                  [&](const SimVolume& candidate) { return candidate.uuid == volume; });
  return found == volumes_.end() ? nullptr : &*found;
}

void SimVolumes::add(SimVolume volume) {
  const DiskEvent event = eventOf(DiskEvent::Kind::appeared, volume);
  {
    os::NativeLock lock(mutex_);
    auto kept = unmounted_.extract(volume.uuid);
    if (!kept.empty()) volume.snapshots = std::move(kept.mapped());
    volumes_.push_back(std::move(volume));
  }
  announce(event);
}

DiskEvent SimVolumes::removeVolume(const Uuid& uuid) {
  SimVolume* volume = find(uuid);
  if (!volume) std::abort();
  DiskEvent event = eventOf(DiskEvent::Kind::disappeared, *volume);
  unmounted_[uuid] = std::move(volume->snapshots);
  volumes_.erase(volumes_.begin() + (volume - volumes_.data()));
  return event;
}

void SimVolumes::take(const Uuid& uuid) {
  DiskEvent event;
  {
    os::NativeLock lock(mutex_);
    event = removeVolume(uuid);
    std::erase_if(mounts_, [&](const Mount& mount) { return mount.volume == uuid; });
  }
  announce(event);
}

void SimVolumes::takeButMounts(const Uuid& uuid) {
  DiskEvent event;
  {
    os::NativeLock lock(mutex_);
    event = removeVolume(uuid);
  }
  announce(event);
}

void SimVolumes::observe(std::weak_ptr<Observer> observer) {
  os::NativeLock lock(mutex_);
  std::erase_if(observers_, [](const auto& other) { return other.expired(); });
  observers_.push_back(std::move(observer));
}

void SimVolumes::announce(const DiskEvent& event) {
  std::vector<std::weak_ptr<Observer>> observers;
  {
    os::NativeLock lock(mutex_);
    observers = observers_;
  }
  for (const auto& observer : observers) {
    if (const auto tell = observer.lock()) (*tell)(event);
  }
}

void SimVolumes::returnSpace(const std::string& mountPoint) {
  os::NativeLock lock(mutex_);
  for (SimVolume& volume : volumes_) {
    if (volume.mountPoint == mountPoint) volume.availableBlocks += std::exchange(volume.returningBlocks, 0);
  }
}

void SimVolumes::change(const Uuid& uuid, FunctionRef<void(SimVolume&)> work) {
  os::NativeLock lock(mutex_);
  SimVolume* volume = find(uuid);
  if (!volume) std::abort();
  work(*volume);
}

std::vector<SimVolume> SimVolumes::volumes() {
  os::NativeLock lock(mutex_);
  return volumes_;
}

void SimVolumes::visit(FunctionRef<void(const SimVolume&)> visitor) {
  os::NativeLock lock(mutex_);
  for (const SimVolume& volume : volumes_) visitor(volume);
}

SysResult<Xid> SimVolumes::addSnapshot(const Uuid& uuid, const std::string& name, Date created) {
  os::NativeLock lock(mutex_);
  SimVolume* volume = find(uuid);
  if (!volume) return Errno{ENOENT};
  if (withName(volume->snapshots, name) != volume->snapshots.end()) return Errno{EEXIST};
  const Xid xid{++transaction_ << 16 | (nextId_++ & 0xFFFF)};
  volume->snapshots.push_back(makeSnapshot(name, xid, created));
  volume->snapshots.back().tree = volume->tree;
  return xid;
}

SysStatus SimVolumes::removeSnapshot(const Uuid& uuid, const std::string& name) {
  os::NativeLock lock(mutex_);
  SimVolume* volume = find(uuid);
  if (!volume) return Errno{ENOENT};
  const auto found = withName(volume->snapshots, name);
  if (found == volume->snapshots.end()) return Errno{ENOENT};
  const bool isMounted = std::any_of(mounts_.begin(), mounts_.end(), [&](const Mount& mount) {
    return mount.volume == uuid && mount.xid == found->xid;
  });
  if (isMounted) return Errno{EBUSY};
  volume->returningBlocks += found->ownBlocks;
  volume->snapshots.erase(found);
  return {};
}

std::vector<SimSnapshot> SimVolumes::snapshots(const Uuid& uuid) {
  os::NativeLock lock(mutex_);
  const SimVolume* volume = find(uuid);
  return volume ? volume->snapshots : std::vector<SimSnapshot>();
}

SysStatus SimVolumes::mount(const Uuid& uuid, const std::string& directory, const std::string& name,
                            std::uint32_t flags) {
  {
    os::NativeLock lock(mutex_);
    SimVolume* volume = find(uuid);
    if (!volume) return Errno{ENOENT};
    const auto found = withName(volume->snapshots, name);
    if (found == volume->snapshots.end()) return Errno{ENOENT};
    for (const Mount& mount : mounts_) {
      if (mount.directory == directory || (mount.volume == uuid && mount.xid == found->xid)) return Errno{EBUSY};
    }
    mounts_.push_back({directory, uuid, name, found->xid, flags, false, volume->description.mediaBsdName.value_or("")});
  }
  announce({DiskEvent::Kind::appeared, directory, "apfs", std::nullopt});
  return {};
}

SysStatus SimVolumes::unmount(const std::string& directory, bool force) {
  {
    os::NativeLock lock(mutex_);
    const auto found =
        std::find_if(mounts_.begin(), mounts_.end(), [&](const Mount& mount) { return mount.directory == directory; });
    if (found == mounts_.end()) return Errno{EINVAL};
    if (found->isBusy && !force) return Errno{EBUSY};
    mounts_.erase(found);
  }
  announce({DiskEvent::Kind::disappeared, directory, "apfs", std::nullopt});
  return {};
}

std::vector<SimVolumes::Mount> SimVolumes::mounts() {
  os::NativeLock lock(mutex_);
  return mounts_;
}

void SimVolumes::setBusy(const std::string& directory, bool isBusy) {
  os::NativeLock lock(mutex_);
  for (Mount& mount : mounts_) {
    if (mount.directory == directory) mount.isBusy = isBusy;
  }
}

FileSystemStatus SimVolumes::status(const std::string& path) {
  os::NativeLock lock(mutex_);
  FileSystemStatus status{.fstypename = "ext4", .mntonname = "/", .mntfromname = "/dev/root"};
  const auto covers = [&](const std::string& mountPoint) {
    return contains(mountPoint, path) && mountPoint.size() >= status.mntonname.size();
  };
  for (const SimVolume& volume : volumes_) {
    if (!covers(volume.mountPoint)) continue;
    const DiskDescription& description = volume.description;
    status = {volume.mountFlags | (description.mediaWritable == false ? mntReadOnly : 0u),
              description.volumeKind.value_or(""),
              volume.mountPoint,
              "/dev/" + description.mediaBsdName.value_or(""),
              volume.blockSize,
              volume.blocks,
              volume.availableBlocks};
  }
  for (const Mount& mount : mounts_) {
    if (!covers(mount.directory)) continue;
    status = {mount.flags, "apfs", mount.directory, mount.snapshot + "@/dev/" + mount.device};
    if (const SimVolume* volume = find(mount.volume)) {
      status.blockSize = volume->blockSize;
      status.blocks = volume->blocks;
      status.availableBlocks = volume->availableBlocks;
    }
  }
  return status;
}

std::optional<SimVolumes::PlacedTree> SimVolumes::treeAt(const std::string& path) {
  os::NativeLock lock(mutex_);
  std::optional<PlacedTree> placed;
  std::size_t longest = 0;
  const auto place = [&](const std::string& mountPoint, const SimTree& tree, bool isSnapshot) {
    if (!contains(mountPoint, path) || mountPoint.size() < longest) return;
    longest = mountPoint.size();
    placed = PlacedTree{tree, path.substr(mountPoint == "/" ? 0 : mountPoint.size()), isSnapshot};
    if (placed->path == "/") placed->path.clear();
  };
  for (const SimVolume& volume : volumes_) place(volume.mountPoint, volume.tree, false);
  for (const Mount& mount : mounts_) {
    const SimVolume* volume = find(mount.volume);
    if (!volume) continue;
    for (const SimSnapshot& snapshot : volume->snapshots) {
      if (snapshot.xid == mount.xid) place(mount.directory, snapshot.tree, true);
    }
  }
  return placed;
}

void SimVolumes::failNext(SimCall call, int error, int times) {
  os::NativeLock lock(mutex_);
  failures_[call].insert(failures_[call].end(), static_cast<std::size_t>(times), error);
}

void SimVolumes::watchCalls(UniqueFunction<void(SimCall, const std::string&)> watcher) {
  os::NativeLock lock(mutex_);
  watcher_ = std::make_shared<UniqueFunction<void(SimCall, const std::string&)>>(std::move(watcher));
}

SysStatus SimVolumes::begin(SimCall call, const std::string& subject) {
  std::shared_ptr<UniqueFunction<void(SimCall, const std::string&)>> watcher;
  {
    os::NativeLock lock(mutex_);
    watcher = watcher_;
  }
  if (watcher && *watcher) (*watcher)(call, subject);
  os::NativeLock lock(mutex_);
  auto& failures = failures_[call];
  if (failures.empty()) return {};
  const int error = failures.front();
  failures.pop_front();
  return Errno{error};
}

}  // namespace quillmark::sim
