#include "platform/linux/diskutil/DiskutilCommands.h"

#include <fmt/format.h>

#include <cerrno>
#include <map>

#include "base/Error.h"
#include "platform/NameText.h"
#include "platform/linux/BtrfsMount.h"
#include "platform/linux/DeviceFacts.h"
#include "platform/linux/Disks.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/SnapshotList.h"

namespace quillmark::os {
namespace {

[[noreturn]] void fail(std::string sentence) { throw Error("Quillmark.Diskutil", 1, std::move(sentence)); }

PropertyList text(const std::string& name) {
  // Property lists carry no control characters; the names of mount points may hold them.
  return PropertyList::Value(nameText(nameBytes(name), NameEscapes::controls));
}
PropertyList number(std::uint64_t value) { return PropertyList::Value(value); }
PropertyList boolean(bool value) { return PropertyList::Value(value); }

// A dictionary that takes only what is known.
class Facts final {
 public:
  Facts& add(const char* key, PropertyList value) {
    entries_.emplace_back(key, std::move(value));
    return *this;
  }
  Facts& add(const char* key, const std::optional<std::string>& value) {
    return value ? add(key, text(*value)) : *this;
  }
  Facts& add(const char* key, const std::optional<std::uint64_t>& value) {
    return value ? add(key, number(*value)) : *this;
  }
  Facts& add(const char* key, const std::optional<bool>& value) { return value ? add(key, boolean(*value)) : *this; }
  [[nodiscard]] PropertyList take() { return PropertyList::Value(std::move(entries_)); }

 private:
  PropertyDictionary entries_;
};

MountTable readTable() {
  auto table = MountTable::read();
  if (!table) fail(posixError("read", "/proc/self/mountinfo", table.error()).description());
  return std::move(*table);
}

// Without its descriptor, which would keep people from unmounting it.
struct FoundVolume {
  const MountEntry* entry;
  Uuid fsid;
  Uuid uuid;
};

std::vector<FoundVolume> mountedVolumes(const MountTable& table) {
  std::vector<FoundVolume> found;
  for (const MountEntry* entry : table.volumes()) {
    const auto mounted = openSubvolume(*entry);
    if (mounted) found.push_back({entry, mounted->fsid, mounted->volumeUuid()});
  }
  return found;
}

FoundVolume volumeOfDevice(DeviceNames& names, const MountTable& table, std::string device) {
  if (device.starts_with("/dev/")) device.erase(0, 5);
  const auto wanted = names.volumeNamed(device);
  if (const auto problem = names.problem(); !wanted && problem) fail("The names of disks can't be read: " + *problem);
  if (!wanted) fail(fmt::format("There is no volume \"{}\".", displayName(device)));
  for (const FoundVolume& volume : mountedVolumes(table)) {
    if (volume.fsid == wanted->fileSystem && volume.uuid == wanted->volume) return volume;
  }
  fail(fmt::format("The volume \"{}\" isn't mounted, or you may not open it.", device));
}

FoundVolume volumeAt(const MountTable& table, const std::string& mountPoint) {
  const MountEntry* entry = table.at(mountPoint);
  if (!entry || !entry->isVolume()) fail(fmt::format("There is no volume at \"{}\".", displayName(mountPoint)));
  const auto mounted = openSubvolume(*entry);
  if (!mounted) fail(posixError("open", mountPoint, mounted.error()).description());
  return {entry, mounted->fsid, mounted->volumeUuid()};
}

std::optional<bool> encryption(const Uuid& fsid) {
  const auto facts = deviceFacts(fsid);
  return facts ? facts->isEncrypted : std::nullopt;
}

PropertyList rolesOf(const DiskDescription& description) {
  PropertyArray roles;
  if (const auto* role = std::get_if<std::string>(&description.role)) roles.push_back(text(*role));
  return PropertyList::Value(std::move(roles));
}

PropertyList volumeOfContainer(LinuxDisks& disks, const FoundVolume& volume) {
  const auto description = disks.describe(volume.entry->mountPoint).value_or(DiskDescription{});
  Facts facts;
  facts.add("APFSVolumeUUID", std::optional(volume.uuid.upper()));
  facts.add("DeviceIdentifier", description.mediaBsdName);
  facts.add("Name", description.volumeName);
  facts.add("Roles", rolesOf(description));
  facts.add("Encryption", encryption(volume.fsid));
  return facts.take();
}

}  // namespace

PropertyList snapshotsOfVolume(DeviceNames& names, const std::string& device) {
  const MountTable table = readTable();
  const FoundVolume volume = volumeOfDevice(names, table, device);
  const auto mounted = openSubvolume(*volume.entry);
  if (!mounted) fail(posixError("open", device, mounted.error()).description());
  const auto snapshots =
      listSnapshots(mounted->fd.get(), {mounted->subvolume.id, mounted->subvolume.uuid, mounted->volumeUuid()});
  if (!snapshots) fail(posixError("list", device, snapshots.error()).description());
  PropertyArray rows;
  for (const ListedSnapshot& snapshot : *snapshots) {
    rows.push_back(Facts()
                       .add("SnapshotName", std::optional(snapshot.name))
                       .add("SnapshotUUID", std::optional(snapshot.subvolume.uuid.upper()))
                       .add("SnapshotXID", number(snapshot.xid.value))
                       .take());
  }
  return Facts().add("Snapshots", PropertyList::Value(std::move(rows))).take();
}

PropertyList containers(DeviceNames& names) {
  const MountTable table = readTable();
  LinuxDisks disks(names);
  std::vector<Uuid> order;
  std::map<Uuid, std::vector<FoundVolume>> byFileSystem;
  for (const FoundVolume& volume : mountedVolumes(table)) {
    auto& volumes = byFileSystem[volume.fsid];
    if (volumes.empty()) order.push_back(volume.fsid);
    volumes.push_back(volume);
  }
  PropertyArray rows;
  for (const Uuid& fsid : order) {
    const auto reference = names.disk(fsid);
    if (!reference) continue;
    const auto& volumes = byFileSystem.at(fsid);
    const VolumeCapacities capacities = disks.capacities(volumes.front().entry->mountPoint);
    PropertyArray members;
    for (const FoundVolume& volume : volumes) members.push_back(volumeOfContainer(disks, volume));
    rows.push_back(Facts()
                       .add("ContainerReference", reference)
                       .add("APFSContainerUUID", std::optional(fsid.upper()))
                       .add("CapacityCeiling", capacities.total)
                       .add("CapacityFree", capacities.available)
                       .add("Volumes", PropertyList::Value(std::move(members)))
                       .take());
  }
  return Facts().add("Containers", PropertyList::Value(std::move(rows))).take();
}

PropertyList volumeInformation(DeviceNames& names, const std::string& deviceOrMountPoint) {
  const MountTable table = readTable();
  const bool isDevice = !deviceOrMountPoint.starts_with('/') || deviceOrMountPoint.starts_with("/dev/");
  const FoundVolume volume =
      isDevice ? volumeOfDevice(names, table, deviceOrMountPoint) : volumeAt(table, deviceOrMountPoint);
  LinuxDisks disks(names);
  const auto description = disks.describe(volume.entry->mountPoint).value_or(DiskDescription{});
  const VolumeCapacities capacities = disks.capacities(volume.entry->mountPoint);
  return Facts()
      .add("DeviceIdentifier", description.mediaBsdName)
      .add("VolumeUUID", std::optional(volume.uuid.upper()))
      .add("VolumeName", description.volumeName)
      .add("MountPoint", std::optional(volume.entry->mountPoint))
      .add("FilesystemType", description.volumeKind)
      .add("WritableVolume", description.mediaWritable)
      .add("BusProtocol", description.deviceProtocol)
      .add("Internal", description.deviceInternal)
      .add("MediaName", description.deviceModel)
      .add("EncryptionThisVolumeProper", encryption(volume.fsid))
      .add("APFSContainerReference", names.disk(volume.fsid))
      .add("APFSContainerSize", capacities.total)
      .add("APFSContainerFree", capacities.available)
      .take();
}

}  // namespace quillmark::os
