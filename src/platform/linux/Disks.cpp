#include "platform/linux/Disks.h"

#include <sys/statvfs.h>

#include <algorithm>

#include "platform/NameText.h"
#include "platform/linux/DeviceFacts.h"
#include "platform/linux/LeaseWatch.h"
#include "platform/linux/MountWatch.h"

namespace quillmark::os {
namespace {

void addDevice(const Uuid& fsid, const std::string& sysfs, DiskDescription& description) {
  const auto facts = deviceFacts(fsid, sysfs);
  if (!facts) return;
  description.deviceInternal = facts->isInternal;
  description.deviceProtocol = facts->protocol;
  description.deviceModel = facts->model;
}

void addNames(const DeviceNames::Volume& volume, DeviceNames& names, DiskDescription& description) {
  description.mediaBsdName = names.volume(volume);
  if (auto role = names.role(volume)) description.role = std::move(*role);
}

}  // namespace

std::string volumeName(const MountEntry& entry, const std::string& label) {
  if (entry.subvolumeId == btrfs::topLevelId || entry.mountPoint == "/") {
    return label.empty() ? "System" : nameText(label);
  }
  const std::string& path = entry.subvolume.value_or(entry.root);
  std::string name = path.substr(path.rfind('/') + 1);
  if (name.size() > 1 && name.starts_with('@')) name.erase(0, 1);
  return name;
}

LinuxDisks::LinuxDisks(DeviceNames& names, std::string sysfs) : names_(names), sysfs_(std::move(sysfs)) {}

std::optional<std::vector<std::string>> LinuxDisks::mountedVolumePaths() {
  const auto table = MountTable::read();
  if (!table) return std::nullopt;
  std::vector<std::string> paths;
  for (const MountEntry* entry : table->volumes()) paths.push_back(entry->mountPoint);
  return paths;
}

std::optional<DiskDescription> LinuxDisks::describe(const std::string& volumePath) {
  const auto table = MountTable::read();
  const MountEntry* entry = table ? table->at(volumePath) : nullptr;
  if (!entry) return std::nullopt;
  DiskDescription description;
  description.volumeKind = entry->isWholeSubvolume() ? "apfs" : entry->type;
  description.volumePath = entry->mountPoint;
  description.mediaWritable = !entry->readOnly && !entry->superReadOnly;
  if (!entry->isWholeSubvolume()) return description;
  auto mounted = openSubvolume(*entry);
  if (!mounted) return description;
  description.volumeUuid = mounted->volumeUuid();
  const auto label = btrfs::label(mounted->fd.get());
  // Names are written down durably: meanwhile nobody could unmount what is open.
  mounted->fd.reset();
  description.volumeName = volumeName(*entry, label ? *label : std::string());
  // Numbers are for volumes: a mounted snapshot comes and goes.
  if (entry->isVolume()) addNames({mounted->fsid, mounted->volumeUuid()}, names_, description);
  addDevice(mounted->fsid, sysfs_, description);
  return description;
}

std::optional<std::vector<std::string>> LinuxDisks::registryClasses(const std::string& bsdName) {
  const auto fileSystem = names_.fileSystemNamed(bsdName);
  const auto facts = fileSystem ? deviceFacts(*fileSystem, sysfs_) : std::nullopt;
  if (!facts) return std::nullopt;
  return facts->classes;
}

std::optional<std::vector<std::string>> LinuxDisks::mediaBsdNames() {
  const auto table = MountTable::read();
  if (!table) return std::nullopt;
  std::vector<std::string> found;
  const auto add = [&](std::optional<std::string> name) {
    if (name && std::find(found.begin(), found.end(), *name) == found.end()) found.push_back(std::move(*name));
  };
  for (const MountEntry* entry : table->volumes()) {
    auto mounted = openSubvolume(*entry);
    if (!mounted) continue;
    mounted->fd.reset();
    add(names_.disk(mounted->fsid));
    add(names_.volume({mounted->fsid, mounted->volumeUuid()}));
  }
  return found;
}

VolumeCapacities LinuxDisks::capacities(const std::string& volumePath) {
  const auto table = MountTable::read();
  const MountEntry* entry = table ? table->at(volumePath) : nullptr;
  if (!entry || !entry->isBtrfs()) return {};
  const auto directory = openMount(*entry);
  struct statvfs blocks;
  if (!directory || ::fstatvfs(directory->get(), &blocks) != 0) return {};
  return {.total = blocks.f_blocks * blocks.f_frsize,
          .available = blocks.f_bavail * blocks.f_frsize,
          .availableForImportantUsage = std::nullopt};
}

std::unique_ptr<DiskWatch> LinuxDisks::watch(Dispatch& dispatch, std::shared_ptr<Queue> queue,
                                             DiskEventHandler handler) {
  return watchMounts(*this, dispatch, std::move(queue), std::move(handler));
}

std::unique_ptr<MountLease> LinuxDisks::lease(Dispatch& dispatch, std::shared_ptr<Queue> queue,
                                              const std::string& mountPoint, const std::string& privateRoot,
                                              UniqueFunction<void()> onRevoked) {
  return leaseFileSystem(dispatch, std::move(queue), mountPoint, privateRoot, std::move(onRevoked));
}

}  // namespace quillmark::os
