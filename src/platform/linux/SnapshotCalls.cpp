#include "platform/linux/SnapshotCalls.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/NameText.h"
#include "platform/linux/FileSystemStatus.h"
#include "platform/linux/SnapshotPlace.h"
#include "platform/linux/UnservedSubvolumes.h"

namespace quillmark::os {
namespace {

class LinuxOpenVolume final : public OpenVolume {
 public:
  explicit LinuxOpenVolume(MountedSubvolume mounted) : mounted_(std::move(mounted)) {}

  [[nodiscard]] int fd() const { return mounted_.fd.get(); }
  [[nodiscard]] const MountedSubvolume& mounted() const { return mounted_; }
  [[nodiscard]] VolumeIdentity identity() const {
    return {mounted_.subvolume.id, mounted_.subvolume.uuid, mounted_.volumeUuid()};
  }

  // What a listing that is under way still has to tell.
  std::optional<std::vector<SnapshotListEntry>> listing;
  std::size_t next = 0;

 private:
  MountedSubvolume mounted_;
};

// Every OpenVolume that reaches us was made by open().
LinuxOpenVolume& own(OpenVolume& volume) { return static_cast<LinuxOpenVolume&>(volume); }

SysResult<ListedSnapshot> findByName(int fd, const VolumeIdentity& volume, const std::string& name) {
  auto snapshots = listSnapshots(fd, volume);
  if (!snapshots) return Errno{snapshots.error()};
  const auto found = std::find_if(snapshots->begin(), snapshots->end(),
                                  [&](const ListedSnapshot& snapshot) { return snapshot.name == name; });
  if (found == snapshots->end()) return Errno{ENOENT};
  return std::move(*found);
}

bool isTrue(const SysResult<bool>& answer) { return answer && *answer; }

// The kernel says EPERM for what can never be destroyed as it stands, and for what is being sent.
int destroyError(int topLevel, const ListedSnapshot& snapshot, int error) {
  if (error != EPERM) return error;
  const auto byDefault = btrfs::defaultSubvolume(topLevel);
  const bool isPinned = isTrue(btrfs::isPinned(topLevel, snapshot.subvolume.id, btrfs::rootInode)) ||
                        isTrue(btrfs::isPinned(topLevel, snapshot.place.parent, snapshot.place.directory)) ||
                        (byDefault && *byDefault == snapshot.subvolume.id);
  return isPinned ? EPERM : EBUSY;
}

// Destroying asks for no consent: a mounted snapshot, or a live volume, would go without a word. Everything that
// forbids it is asked here, on one mount, which keeps ids from being given anew.
SysStatus destroyChecked(int topLevel, DeviceNumber device, const VolumeIdentity& volume,
                         const ListedSnapshot& snapshot) {
  const auto table = MountTable::read();
  if (!table) return Errno{table.error()};
  if (table->isMounted(device, snapshot.subvolume.id)) return Errno{EBUSY};
  const auto now = btrfs::findSubvolume(topLevel, snapshot.subvolume.id);
  if (!now) return Errno{now.error()};
  btrfs::Subvolume listed = snapshot.subvolume;
  listed.lastChange = now->subvolume.lastChange;  // becomes known with the next commit
  const bool isAsListed = now->subvolume == listed && now->place == snapshot.place && volume.isSnapshot(now->subvolume);
  if (!isAsListed) return Errno{ENOENT};
  const SysStatus destroyed = btrfs::destroySubvolume(topLevel, snapshot.subvolume.id);
  if (!destroyed) return Errno{destroyError(topLevel, snapshot, destroyed.error())};
  return {};
}

// 0 for none.
std::uint64_t changeSinceCreation(const btrfs::Subvolume& snapshot) {
  return snapshot.lastChange > snapshot.otransid ? snapshot.lastChange : 0;
}

std::vector<SnapshotListEntry> entriesOf(std::vector<ListedSnapshot> snapshots) {
  std::vector<SnapshotListEntry> entries;
  entries.reserve(snapshots.size());
  for (ListedSnapshot& snapshot : snapshots) {
    const btrfs::Time& made = snapshot.subvolume.otime;
    entries.push_back({std::move(snapshot.name), made.seconds, made.nanoseconds, snapshot.xid.value});
  }
  return entries;
}

}  // namespace

LinuxSnapshotCalls::LinuxSnapshotCalls(Dispatch& dispatch, DeviceNames& names)
    : dispatch_(dispatch), names_(names), reclaimer_(dispatch), mounting_(dispatch), mutex_(dispatch) {}

LinuxSnapshotCalls::~LinuxSnapshotCalls() = default;

std::shared_ptr<Mutex> LinuxSnapshotCalls::creationLock(const Uuid& fsid) {
  MutexLock lock(mutex_);
  auto& slot = creationLocks_[fsid];
  if (!slot) slot = std::make_shared<Mutex>(dispatch_);
  return slot;
}

SysResult<std::unique_ptr<OpenVolume>> LinuxSnapshotCalls::open(const std::string& mountPoint,
                                                                const VolumeUuid& expected) {
  const auto table = MountTable::read();
  if (!table) return Errno{table.error()};
  const MountEntry* entry = table->at(mountPoint);
  if (!entry) return Errno{ENOENT};
  if (!entry->isVolume()) return Errno{ESTALE};
  auto mounted = openSubvolume(*entry);
  if (!mounted) return Errno{mounted.error()};
  if (VolumeUuid(mounted->volumeUuid().lower()) != expected) return Errno{ESTALE};
  return std::unique_ptr<OpenVolume>(std::make_unique<LinuxOpenVolume>(std::move(*mounted)));
}

SysStatus LinuxSnapshotCalls::fs_snapshot_create(OpenVolume& volume, const std::string& name) {
  const LinuxOpenVolume& opened = own(volume);
  const auto fileName = placeFileName(name);
  if (!fileName) return Errno{fileName.error()};
  const auto source = sourceOf(opened.mounted());
  if (!source) return Errno{source.error()};
  // The kernel would write out the volume's data first; done here, nobody waits for that behind the lock.
  if (::syncfs(opened.fd()) != 0) return Errno{errno};
  const std::shared_ptr<Mutex> serial = creationLock(source->fsid);
  MutexLock lock(*serial);
  const auto topLevel = PrivateMount::openTopLevel(*source);
  if (!topLevel) return Errno{topLevel.error()};
  const auto place = openPlace(topLevel->root(), opened.identity().volume);
  if (!place) return Errno{place.error()};
  return btrfs::createSnapshot(place->get(), opened.fd(), *fileName);
}

class LinuxSnapshotCalls::Batch final : public DeletionBatch {
 public:
  explicit Batch(LinuxSnapshotCalls& calls) : calls_(calls) {}
  ~Batch() override { calls_.endDeletions(); }

 private:
  LinuxSnapshotCalls& calls_;
};

std::unique_ptr<DeletionBatch> LinuxSnapshotCalls::beginDeletions() {
  auto batch = std::make_unique<Batch>(*this);
  MutexLock lock(mutex_);
  ++batches_;
  return batch;
}

void LinuxSnapshotCalls::endDeletions() {
  MutexLock lock(mutex_);
  if (--batches_ == 0) mountedElsewhere_.clear();
}

const SubvolumeIds* LinuxSnapshotCalls::knownLocked(DeviceNumber device) {
  constexpr std::chrono::seconds lately{1};
  const auto found = mountedElsewhere_.find(device);
  if (found == mountedElsewhere_.end()) return nullptr;
  return dispatch_.clock().monotonic() - found->second.readAt < lately ? &found->second.subvolumes : nullptr;
}

SysResult<bool> LinuxSnapshotCalls::isMounted(DeviceNumber device, btrfs::SubvolumeId subvolume) {
  bool isBatch = false;
  {
    MutexLock lock(mutex_);
    if (const SubvolumeIds* known = knownLocked(device)) return known->contains(subvolume);
    isBatch = batches_ > 0;
  }
  if (!isBatch) return isMountedAnywhere(device, subvolume, dispatch_.clock());
  const MonotonicTime now = dispatch_.clock().monotonic();
  auto all = mountedAnywhere(device, dispatch_.clock());
  if (!all) return Errno{all.error()};
  const bool contains = all->contains(subvolume);
  MutexLock lock(mutex_);
  if (batches_ > 0) mountedElsewhere_[device] = {std::move(*all), now};
  return contains;
}

SysStatus LinuxSnapshotCalls::fs_snapshot_delete(OpenVolume& volume, const std::string& name, Xid meant) {
  const LinuxOpenVolume& opened = own(volume);
  const auto source = sourceOf(opened.mounted());
  if (!source) return Errno{source.error()};
  const auto topLevel = PrivateMount::openTopLevel(*source);
  if (!topLevel) return Errno{topLevel.error()};
  const auto snapshot = findByName(topLevel->root(), opened.identity(), name);
  if (!snapshot) return Errno{snapshot.error()};
  if (snapshot->xid != meant) return Errno{ENOENT};
  // Other namespaces' tables are their owners' to fill, and may take long; what we mount ourselves is asked again.
  const auto mounted = isMounted(source->device, snapshot->subvolume.id);
  if (!mounted) return Errno{mounted.error()};
  if (*mounted) return Errno{EBUSY};
  MutexLock lock(mounting_);
  const SysStatus destroyed = destroyChecked(topLevel->root(), source->device, opened.identity(), *snapshot);
  if (destroyed) reclaimer_.add(*source, snapshot->subvolume);
  return destroyed;
}

SysResult<int> LinuxSnapshotCalls::fs_snapshot_list(OpenVolume& volume, const AttributeList& attributes,
                                                    std::span<std::byte> buffer) {
  LinuxOpenVolume& opened = own(volume);
  if (!opened.listing) {
    auto snapshots = listSnapshots(opened.fd(), opened.identity());
    if (!snapshots) return Errno{snapshots.error()};
    opened.listing = entriesOf(std::move(*snapshots));
  }
  return writeSnapshotRecords(*opened.listing, opened.next, attributes, buffer);
}

SysStatus LinuxSnapshotCalls::fs_snapshot_mount(OpenVolume& volume, const std::string& directory,
                                                const std::string& name, Xid meant, std::uint32_t mountFlags) {
  // There is no mount flag by which this system could let owners be ignored.
  if ((mountFlags & ~mntIgnoreOwnership) != (mntReadOnly | mntNoSuid | mntNoDev)) return Errno{EINVAL};
  const LinuxOpenVolume& opened = own(volume);
  const auto source = sourceOf(opened.mounted());
  if (!source) return Errno{source.error()};
  const auto snapshot = findByName(opened.fd(), opened.identity(), name);
  if (!snapshot) return Errno{snapshot.error()};
  if (snapshot->xid != meant) return Errno{ENOENT};
  const UniqueFd target(::open(nameBytes(directory).c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!target.valid()) return Errno{errno};
  MutexLock lock(mounting_);
  const auto table = MountTable::read();
  if (!table) return Errno{table.error()};
  if (table->isMounted(source->device, snapshot->subvolume.id)) return Errno{EBUSY};
  auto mount = PrivateMount::open(*source, snapshot->subvolume.id, PrivateMount::Access::readOnly);
  if (!mount) return Errno{mount.error()};
  const auto mounted = btrfs::subvolumeOf(mount->root());
  if (!mounted) return Errno{mounted.error()};
  if (mounted->uuid != snapshot->subvolume.uuid || !mounted->readOnly) return Errno{ESTALE};
  return mount->attach(target.get());
}

SysStatus LinuxSnapshotCalls::unmount(const std::string& path, bool force) {
  const auto table = MountTable::read();
  if (!table) return Errno{table.error()};
  if (!table->at(path)) return Errno{EINVAL};
  if (::umount2(nameBytes(path).c_str(), UMOUNT_NOFOLLOW | (force ? MNT_DETACH : 0)) != 0) return Errno{errno};
  return {};
}

SysResult<FileSystemStatus> LinuxSnapshotCalls::statfs(const std::string& path) {
  return fileSystemStatus(path, names_);
}

SysResult<std::vector<FileSystemStatus>> LinuxSnapshotCalls::getmntinfo() { return subvolumeStatuses(names_); }

SysResult<std::map<Xid, std::uint64_t>> LinuxSnapshotCalls::changedSnapshots(OpenVolume& volume) {
  const auto snapshots = listSnapshots(own(volume).fd(), own(volume).identity());
  if (!snapshots) return Errno{snapshots.error()};
  std::map<Xid, std::uint64_t> changed;
  for (const ListedSnapshot& snapshot : *snapshots) {
    if (const std::uint64_t change = changeSinceCreation(snapshot.subvolume)) changed.emplace(snapshot.xid, change);
  }
  return changed;
}

SysResult<std::uint64_t> LinuxSnapshotCalls::lastChange(const std::string& path) {
  const auto table = MountTable::read();
  if (!table) return Errno{table.error()};
  const MountEntry* entry = table->at(path);
  if (!entry) return Errno{EINVAL};
  const auto mounted = openSubvolume(*entry);
  if (!mounted) return Errno{mounted.error()};
  return changeSinceCreation(mounted->subvolume);
}

SysResult<UnservedSubvolumes> LinuxSnapshotCalls::unservedSubvolumes(OpenVolume& volume) {
  const auto table = MountTable::read();
  if (!table) return Errno{table.error()};
  return os::unservedSubvolumes(own(volume).mounted(), *table);
}

bool LinuxSnapshotCalls::waitForSpace(const std::string& mountPoint, std::chrono::nanoseconds duration) {
  std::optional<Uuid> fsid;
  {
    const auto table = MountTable::read();
    const MountEntry* entry = table ? table->at(mountPoint) : nullptr;
    if (!entry || !entry->isVolume()) return true;
    // Let go of before the wait, or the volume couldn't be unmounted meanwhile.
    const auto mounted = openSubvolume(*entry);
    if (mounted) fsid = mounted->fsid;
  }
  return !fsid || reclaimer_.waitFor(*fsid, duration);
}

}  // namespace quillmark::os
