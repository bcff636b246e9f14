#include "BtrfsMachine.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "platform/HostPaths.h"
#include "platform/contract/SnapshotCallsSuite.h"

namespace quillmark::os {
namespace {

void check(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error(what + ": " + std::strerror(errno));
}

// Answers what stands in the way.
std::string enterSandbox() {
  if (::geteuid() != 0) return "not root";
  if (::unshare(CLONE_NEWNS) != 0) return "no mount namespace of our own";
  if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "mounts can't be made private";
  // Existing directories, covered for us alone.
  for (const char* directory : {"/mnt", "/var/lib"}) {
    if (::mount("tmpfs", directory, "tmpfs", 0, "mode=755,size=8G") != 0) return "no tmpfs";
  }
  if (::faccessat(AT_FDCWD, "/dev/loop-control", W_OK, AT_EACCESS) != 0) return "no loop devices";
  if (std::system("command -v mkfs.btrfs btrfs >/dev/null") != 0) return "no btrfs programs";
  if (std::system("grep -qw btrfs /proc/filesystems || modprobe btrfs 2>/dev/null") != 0)
    return "no btrfs in the kernel";
  return {};
}

// Frees itself with its last mount; the image, unlinked, with it.
std::string attachLoop(const std::string& image, UniqueFd& held) {
  const UniqueFd control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  const UniqueFd file(::open(image.c_str(), O_RDWR | O_CLOEXEC));
  check(control.valid() && file.valid(), "open");
  for (int attempt = 0; attempt < 32; ++attempt) {
    const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
    check(number >= 0, "LOOP_CTL_GET_FREE");
    const std::string device = "/dev/loop" + std::to_string(number);
    UniqueFd loop(::open(device.c_str(), O_RDWR | O_CLOEXEC));
    check(loop.valid(), "open " + device);
    loop_config config{};
    config.fd = static_cast<__u32>(file.get());
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (::ioctl(loop.get(), LOOP_CONFIGURE, &config) == 0) {
      held = std::move(loop);
      return device;
    }
    check(errno == EBUSY, "LOOP_CONFIGURE");
  }
  throw std::runtime_error("no free loop device");
}

std::string freshDirectory() {
  std::string path = "/mnt/machine-XXXXXX";
  check(::mkdtemp(path.data()) != nullptr, "mkdtemp");
  return path;
}

}  // namespace

std::string whatIsMissing() {
  static const std::string missing = enterSandbox();
  return missing;
}

BtrfsMachine::BtrfsMachine(const std::string& label)
    : root(freshDirectory()), top(root + "/top"), volume(root + "/volume"),
      deviceNames(posix, HostPaths().deviceNames, DeviceNames::Mode::writer), disks(deviceNames), dispatch(clock),
      calls(dispatch, deviceNames) {
  const std::string image = root + "/image";
  shell("truncate -s 64G " + image + " && mkfs.btrfs -q -L '" + label + "' " + image);
  UniqueFd loop;
  device = attachLoop(image, loop);
  mount(top, "subvolid=5");
  shell("rm " + image + "; btrfs -q subvolume create " + top + "/data");
  mount(volume, "subvol=data");
}

BtrfsMachine::~BtrfsMachine() {
  dispatch.shutdown();
  const std::string leave =
      "grep -o ' " + root + "/[^ ]*' /proc/self/mountinfo | tac | xargs -rn1 umount -l; rm -rf " + root;
  if (std::system(leave.c_str()) != 0) ADD_FAILURE() << "the machine could not be taken apart";
}

std::string BtrfsMachine::shell(const std::string& command) {
  std::string output;
  ::setenv("COMMAND", command.c_str(), 1);
  FILE* pipe = ::popen("exec bash -ec \"$COMMAND\" 2>&1", "r");
  check(pipe != nullptr, "popen");
  char buffer[4096];
  for (std::size_t count; (count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, count);
  const int status = ::pclose(pipe);
  EXPECT_EQ(status, 0) << command << "\n" << output;
  return output;
}

void BtrfsMachine::mount(const std::string& directory, const std::string& options) {
  check(::mkdir(directory.c_str(), 0755) == 0 || errno == EEXIST, "mkdir " + directory);
  shell("mount -t btrfs -o " + options + " " + device + " " + directory);
}

std::vector<std::string> BtrfsMachine::mountedVolumes() {
  std::vector<std::string> paths = disks.mountedVolumePaths().value();
  std::erase_if(paths, [&](const std::string& path) { return !path.starts_with(root + "/"); });
  return paths;
}

VolumeUuid BtrfsMachine::uuidAt(const std::string& mountPoint) {
  const auto description = disks.describe(mountPoint);
  check(description && description->volumeUuid, "describe " + mountPoint);
  return VolumeUuid(description->volumeUuid->lower());
}

std::unique_ptr<OpenVolume> BtrfsMachine::open(const std::string& mountPoint) {
  auto opened = calls.open(mountPoint, uuidAt(mountPoint));
  if (!opened) throw std::runtime_error("open " + mountPoint + ": " + std::strerror(opened.error()));
  return std::move(*opened);
}

std::vector<std::string> BtrfsMachine::names(const std::string& mountPoint) {
  return contract::namesOf(contract::listAll(calls, *open(mountPoint)));
}

}  // namespace quillmark::os
