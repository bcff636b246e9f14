#include "quill/LinuxLocalVolumes.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>

#include "platform/NameText.h"
#include "platform/linux/DeviceNames.h"
#include "platform/linux/Disks.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/Posix.h"
#include "platform/linux/Processes.h"
#include "platform/linux/PropertyList.h"
#include "platform/linux/SnapshotCalls.h"
#include "snapshots/VolumeService.h"

namespace quillmark::cli {
namespace {

using os::MountEntry;
using os::MountTable;
using Kind = Place::Kind;

std::optional<struct stat> statusOf(const std::string& bytes) {
  struct stat status;
  if (::stat(bytes.c_str(), &status) != 0) return std::nullopt;
  return status;
}

// The mount that stands for the subvolume in the inventory.
const MountEntry* volumeOf(const MountTable& table, const MountEntry& entry) {
  if (!entry.isBtrfs()) return nullptr;
  for (const MountEntry* volume : table.volumes()) {
    if (volume->device == entry.device && volume->subvolumeId == entry.subvolumeId) return volume;
  }
  return nullptr;
}

// Every subvolume of btrfs has a device number of its own, so a path with another one than its mount's root has left it.
Place placeOf(const MountTable& table, const std::string& bytes) {
  const MountEntry* entry = table.holder(nameText(bytes));
  const MountEntry* volume = entry ? volumeOf(table, *entry) : nullptr;
  if (!volume) return {Kind::elsewhere, {}};
  const auto path = statusOf(bytes), root = statusOf(nameBytes(entry->mountPoint));
  if (!path || !root) return {Kind::elsewhere, {}};
  if (path->st_dev != root->st_dev) return {Kind::nestedSubvolume, {}};
  return {Kind::volumes, {volume->mountPoint}};
}

Place placeOfDevice(const MountTable& table, dev_t device) {
  Place place{Kind::elsewhere, {}};
  for (const MountEntry* volume : table.volumes()) {
    const auto source = statusOf(nameBytes(volume->source));
    if (!source || !S_ISBLK(source->st_mode) || source->st_rdev != device) continue;
    place.kind = Kind::volumes;
    place.mountPaths.push_back(volume->mountPoint);
  }
  return place;
}

// As bytes; empty when there is none, or none that leads anywhere.
std::string currentDirectory() {
  char buffer[PATH_MAX];
  const char* path = ::getcwd(buffer, sizeof buffer);
  return path && path[0] == '/' ? path : std::string();
}

}  // namespace

struct LinuxLocalVolumes::Inventory {
  Inventory(Dispatch& dispatch, const HostPaths& paths)
      : names(posix, paths.deviceNames, os::DeviceNames::Mode::reader), disks(names), snapshots(dispatch, names),
        processes(dispatch), service(dispatch, disks, snapshots, processes, propertyLists, paths) {}

  os::LinuxPosix posix;
  os::DeviceNames names;
  os::LinuxDisks disks;
  os::LinuxSnapshotCalls snapshots;
  os::LinuxProcesses processes;
  os::LinuxPropertyLists propertyLists;
  VolumeService service;
};

LinuxLocalVolumes::LinuxLocalVolumes(Dispatch& dispatch, const HostPaths& paths) : dispatch_(dispatch), paths_(paths) {}
LinuxLocalVolumes::~LinuxLocalVolumes() = default;

std::vector<APFSVolume> LinuxLocalVolumes::list(bool detailed) {
  if (!inventory_) inventory_ = std::make_unique<Inventory>(dispatch_, paths_);
  return inventory_->service.listVolumes(detailed);
}

Place LinuxLocalVolumes::at(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(nameBytes(path).c_str(), nullptr), &std::free);
  const auto status = real ? statusOf(real.get()) : std::nullopt;
  if (!status) return {Kind::nothing, {}};
  const auto table = MountTable::read();
  if (!table) return {Kind::elsewhere, {}};
  return S_ISBLK(status->st_mode) ? placeOfDevice(*table, status->st_rdev) : placeOf(*table, real.get());
}

Place LinuxLocalVolumes::here() {
  const std::string directory = currentDirectory();
  const auto table = MountTable::read();
  return directory.empty() || !table ? Place{Kind::nothing, {}} : placeOf(*table, directory);
}

std::vector<std::string> LinuxLocalVolumes::mountPoints() {
  std::vector<std::string> points;
  if (const auto table = MountTable::read()) {
    for (const MountEntry& entry : table->entries()) points.push_back(entry.mountPoint);
  }
  return points;
}

std::string LinuxLocalVolumes::absolutePath(const std::string& path) {
  const std::filesystem::path directory(currentDirectory());
  std::string whole = (directory / nameBytes(path)).lexically_normal().native();
  while (whole.size() > 1 && whole.ends_with('/')) whole.pop_back();
  return nameText(whole);
}

}  // namespace quillmark::cli
