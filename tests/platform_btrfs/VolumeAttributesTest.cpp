#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "BtrfsMachine.h"
#include "platform/contract/VolumeAttributesSuite.h"
#include "platform/linux/VolumeAttributes.h"

namespace quillmark {
namespace {

class BtrfsBackend final {
 public:
  VolumeAttributes& attributes() { return attributes_; }
  [[nodiscard]] std::string mountPoint() const { return machine_.volume; }
  [[nodiscard]] VolumeUuid uuid() const { return VolumeUuid(asWritten_); }
  void makeReadOnly() { machine_.shell("mount -o remount,bind,ro " + machine_.volume); }
  void mountAnother() {
    machine_.shell("btrfs -q subvolume create " + machine_.top + "/another");
    machine_.shell("umount " + machine_.volume);
    machine_.mount(machine_.volume, "subvol=another");
  }

 private:
  os::BtrfsMachine machine_;
  const std::string asWritten_ = machine_.uuidAt(machine_.volume).text();
  os::LinuxVolumeAttributes attributes_;
};

}  // namespace

namespace contract {
INSTANTIATE_TYPED_TEST_SUITE_P(Btrfs, VolumeAttributesSuite, BtrfsBackend);
}  // namespace contract

namespace os {
namespace {

const char* const name = "com.harrowfern.quillmark.protected-xids";
const char* const kernelName = "trusted.com.harrowfern.quillmark.protected-xids";

// The errno with which an ordinary user fails to read the attribute; 0 when it is read.
int errorOfOrdinaryUser(const std::string& path) {
  const pid_t child = ::fork();
  if (child == 0) {
    char byte[64];
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(255);
    ::_exit(::getxattr(path.c_str(), kernelName, byte, sizeof byte) < 0 ? errno : 0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

TEST(LinuxVolumeAttributes, StandOnTheVolumesRootForRootAlone) {
  BtrfsMachine machine;
  LinuxVolumeAttributes attributes;
  const auto opened = attributes.open(machine.volume, machine.uuidAt(machine.volume));
  ASSERT_TRUE(opened);
  ASSERT_TRUE((*opened)->write(name, "[7]"));
  char value[64];
  ASSERT_EQ(::getxattr(machine.volume.c_str(), kernelName, value, sizeof value), 3);
  EXPECT_EQ(std::string(value, 3), "[7]");
  machine.shell("chmod 755 " + machine.root + " " + machine.volume);
  EXPECT_EQ(errorOfOrdinaryUser(machine.volume), ENODATA);

  ASSERT_EQ(::setxattr(machine.volume.c_str(), kernelName, "[9]", 3, 0), 0);
  EXPECT_EQ(*(*opened)->read(name), "[9]");
}

// Goal:   what write() acknowledged is on the disk.
// Method: a copy of the device as it stands the moment after, mounted; nothing asks for a commit.
TEST(LinuxVolumeAttributes, AreOnTheDiskWhenTheCallReturns) {
  BtrfsMachine machine;
  LinuxVolumeAttributes attributes;
  machine.shell("sync -f " + machine.volume);
  const auto opened = attributes.open(machine.volume, machine.uuidAt(machine.volume));
  ASSERT_TRUE(opened);
  ASSERT_TRUE((*opened)->write(name, "[7]"));
  // All that so small a file system uses lies at the front.
  const std::string copy = machine.root + "/copy", image = copy + ".img";
  machine.shell("mkdir " + copy + "; head -c 256M " + machine.device + " > " + image + "; truncate -s 64G " + image +
                "; mount -o loop,subvol=data " + image + " " + copy);
  char value[64];
  EXPECT_EQ(::getxattr(copy.c_str(), kernelName, value, sizeof value), 3) << errno;
  machine.shell("umount " + copy);
}

TEST(LinuxVolumeAttributes, KnowAFolderThatIsNoVolume) {
  BtrfsMachine machine;
  machine.shell("mkdir " + machine.volume + "/folder " + machine.root + "/bound; mount --bind " + machine.volume +
                "/folder " + machine.root + "/bound");
  const VolumeUuid uuid = machine.uuidAt(machine.volume);
  EXPECT_EQ(LinuxVolumeAttributes().open(machine.root + "/bound", uuid).error(), ESTALE);
  EXPECT_EQ(LinuxVolumeAttributes().open(machine.volume + "/folder", uuid).error(), ENOENT);
}

}  // namespace
}  // namespace os
}  // namespace quillmark
