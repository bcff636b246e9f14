#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "BtrfsMachine.h"
#include "base/FunctionRef.h"
#include "platform/contract/SnapshotCallsSuite.h"
#include "platform/linux/MountNamespaces.h"

namespace quillmark::os {
namespace {

// A process with a mount namespace of its own that `prepare` has filled; both go with this.
class Neighbour final {
 public:
  explicit Neighbour(FunctionRef<bool()> prepare) {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) return;
    process_ = ::fork();
    if (process_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      const char answer = ::unshare(CLONE_NEWNS) == 0 && prepare() ? 'y' : 'n';
      if (::write(ready[1], &answer, 1) != 1) ::_exit(1);
      for (;;) ::pause();
    }
    char answer = 0;
    isReady_ = ::read(ready[0], &answer, 1) == 1 && answer == 'y';
    for (const int fd : ready) ::close(fd);
  }
  ~Neighbour() {
    if (process_ <= 0) return;
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  Neighbour(const Neighbour&) = delete;
  Neighbour& operator=(const Neighbour&) = delete;

  [[nodiscard]] bool isReady() const { return isReady_; }

 private:
  pid_t process_ = -1;
  bool isReady_ = false;
};

class Namespaces : public ::testing::Test {
 protected:
  Namespaces() {
    EXPECT_TRUE(machine.calls.fs_snapshot_create(*machine.open(machine.volume), "shown"));
    machine.shell("mkdir " + directory);
    options = "subvol=/.quillmark/" + machine.uuidAt(machine.volume).text() + "/shown";
  }
  int remove() {
    const Xid xid = contract::xidOf(machine.calls, *machine.open(machine.volume), "shown");
    return machine.calls.fs_snapshot_delete(*machine.open(machine.volume), "shown", xid).error();
  }
  bool mountSnapshot() {
    return ::mount(machine.device.c_str(), directory.c_str(), "btrfs", MS_RDONLY, options.c_str()) == 0;
  }

  BtrfsMachine machine;
  const std::string directory = machine.root + "/elsewhere";
  std::string options;
};

// Goal:   a snapshot is kept that only some of its namespace's processes can see.
// Method: of two processes the first, which has the lower number, shuts itself into a directory after mounting.
TEST_F(Namespaces, AMountIsSeenPastAProcessThatIsShutIntoADirectory) {
  {
    const Neighbour neighbour([&] {
      if (!mountSnapshot()) return false;
      if (::fork() == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) ::pause();
      }
      return ::chroot("/usr") == 0;
    });
    ASSERT_TRUE(neighbour.isReady());
    EXPECT_EQ(remove(), EBUSY);
  }
  // The second process ends a moment after the first.
  machine.shell("for try in {1..200}; do grep -qs ' " + directory +
                " ' /proc/[0-9]*/mountinfo || exit 0; sleep 0.02; done; exit 1");
  EXPECT_EQ(remove(), 0);
}

// Goal:   what a batch reads once it reads of all snapshots, and keeps not beyond its end.
// Method: deletions of two snapshots under one batch, a neighbour showing one of them.
TEST_F(Namespaces, ABatchSeesTheMountsOfAllItsSnapshots) {
  EXPECT_TRUE(machine.calls.fs_snapshot_create(*machine.open(machine.volume), "other"));
  const Xid other = contract::xidOf(machine.calls, *machine.open(machine.volume), "other");
  {
    const Neighbour neighbour([&] { return mountSnapshot(); });
    ASSERT_TRUE(neighbour.isReady());
    const auto batch = machine.calls.beginDeletions();
    EXPECT_TRUE(machine.calls.fs_snapshot_delete(*machine.open(machine.volume), "other", other));
    EXPECT_EQ(remove(), EBUSY);
  }
  EXPECT_EQ(remove(), 0);
}

// Peak memory since the last call, in bytes.
std::uint64_t peakMemory() {
  std::ifstream status("/proc/self/status");
  std::uint64_t kilobytes = 0;
  for (std::string word; status >> word && word != "VmHWM:";) continue;
  status >> kilobytes;
  std::ofstream("/proc/self/clear_refs") << 5;
  return kilobytes * 1024;
}

// Goal:   whoever fills a namespace with mounts costs us no memory, and no deletion within the limits.
// Method: 2,000 binds at a path of some 3,600 bytes that the table spells fourfold: tens of megabytes.
TEST_F(Namespaces, AHostileTableIsReadInConstantMemory) {
  const Neighbour neighbour([&] {
    if (::mount("none", directory.c_str(), "tmpfs", 0, nullptr) != 0 || ::chdir(directory.c_str()) != 0) return false;
    const std::string name(200, '\\');
    for (int depth = 0; depth < 18; ++depth) {
      if (::mkdir(name.c_str(), 0755) != 0 || ::chdir(name.c_str()) != 0) return false;
    }
    for (int count = 0; count < 2000; ++count) {
      const std::string point = "m" + std::to_string(count);
      if (::mkdir(point.c_str(), 0755) != 0) return false;
      if (::mount("m0", point.c_str(), nullptr, MS_BIND, nullptr) != 0) return false;
    }
    return true;
  });
  ASSERT_TRUE(neighbour.isReady());
  NamespaceLimits small;
  small.bytes = 20 << 20;
  const auto unknown = isMountedAnywhere({0, 0}, 257, machine.clock, small);
  EXPECT_EQ(unknown.error(), EBUSY) << "the table isn't as large as it should be";
  static_cast<void>(peakMemory());
  const std::uint64_t before = peakMemory();
  EXPECT_EQ(remove(), 0);
  EXPECT_LT(peakMemory() - before, 8u << 20);
}

}  // namespace
}  // namespace quillmark::os
