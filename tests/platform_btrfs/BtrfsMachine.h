// BtrfsMachine: fresh btrfs file systems on loop devices, seen by this process alone. The first one moves the process
// into a mount namespace of its own; images lie in its memory, loop devices free themselves with their last mount, so
// that nothing is left on the host however the process ends.
//
//   BtrfsMachine machine;                       // one file system; "data" made on it and mounted at machine.volume
//   machine.shell("touch " + machine.volume + "/file");
// Threads: confined to one thread; the first one is made before any other thread starts.
#pragma once

#include <memory>
#include <string>

#include "base/UniqueFd.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Disks.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/Posix.h"
#include "platform/linux/SnapshotCalls.h"

namespace quillmark::os {

// Why there can be no btrfs here; empty when there can. Under CI=true a missing one is a failure, not a skip.
[[nodiscard]] std::string whatIsMissing();

class BtrfsMachine final {
 public:
  explicit BtrfsMachine(const std::string& label = "Tests");
  ~BtrfsMachine();
  BtrfsMachine(const BtrfsMachine&) = delete;
  BtrfsMachine& operator=(const BtrfsMachine&) = delete;

  // Runs a shell command; fails the test and gives its output when it doesn't end with 0.
  std::string shell(const std::string& command);
  // Makes a directory and mounts the file system there with these options.
  void mount(const std::string& directory, const std::string& options);
  [[nodiscard]] VolumeUuid uuidAt(const std::string& mountPoint);
  [[nodiscard]] std::unique_ptr<OpenVolume> open(const std::string& mountPoint);
  // Without those that the host has.
  [[nodiscard]] std::vector<std::string> mountedVolumes();
  [[nodiscard]] std::vector<std::string> names(const std::string& mountPoint);

  const std::string root;    // a directory of its own, gone with the machine
  const std::string top;     // where the top level is mounted
  const std::string volume;  // where the subvolume "data" is mounted
  std::string device;        // the loop device

  LinuxPosix posix;
  DeviceNames deviceNames;
  LinuxDisks disks;
  LinuxClock clock;
  LinuxDispatch dispatch;
  LinuxSnapshotCalls calls;
};

}  // namespace quillmark::os
