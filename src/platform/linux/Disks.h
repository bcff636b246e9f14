// LinuxDisks: volumes as they are mounted, btrfs and sysfs facts about them.
// Ownership: borrows the names, which must outlive it.
// Threads:   thread-safe. Looks anew at every call.
#pragma once

#include "platform/Disks.h"
#include "platform/linux/BtrfsMount.h"
#include "platform/linux/DeviceNames.h"
#include "platform/linux/MountTable.h"

namespace quillmark::os {

// What people call a volume: the file system's label for the top level and for what is mounted at "/" ("System" where
// there is none), else the last part of its path at the top level without the "@" that installers put in front.
[[nodiscard]] std::string volumeName(const MountEntry& entry, const std::string& label);

class LinuxDisks final : public Disks {
 public:
  explicit LinuxDisks(DeviceNames& names, std::string sysfs = "/sys");

  // False while the mount table can't be read, as when descriptors have run out.
  bool startSession() override { return MountTable::read().ok(); }
  // Volumes that are ours to serve alone.
  std::optional<std::vector<std::string>> mountedVolumePaths() override;
  // Of any mount, given its mount point; of other kinds than ours, and of one that isn't reachable, only what the mount
  // table tells.
  std::optional<DiskDescription> describe(const std::string& volumePath) override;
  std::optional<std::vector<std::string>> registryClasses(const std::string& bsdName) override;
  // Those of the mounted volumes, and of their file systems.
  std::optional<std::vector<std::string>> mediaBsdNames() override;
  VolumeCapacities capacities(const std::string& volumePath) override;
  std::unique_ptr<DiskWatch> watch(Dispatch& dispatch, std::shared_ptr<Queue> queue, DiskEventHandler handler) override;
  // Before it is revoked, what the people wrote is on its way to the disk: their own unmount left it in memory.
  std::unique_ptr<MountLease> lease(Dispatch& dispatch, std::shared_ptr<Queue> queue, const std::string& mountPoint,
                                    const std::string& privateRoot, UniqueFunction<void()> onRevoked) override;

 private:
  DeviceNames& names_;
  const std::string sysfs_;
};

}  // namespace quillmark::os
