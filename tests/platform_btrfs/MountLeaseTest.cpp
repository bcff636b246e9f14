#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "BtrfsMachine.h"
#include "platform/contract/SnapshotCallsSuite.h"

namespace quillmark::os {
namespace {

using namespace std::chrono_literals;

// Goal:   who unmounts a file system gets his device back at once, though a snapshot of it is mounted for ourselves.
// Method: a private mount that its lease's handler takes away; the device can be had for oneself when no mount is left.
TEST(MountLease, EndsWithTheLastMountOfOthersAndTheDeviceIsFree) {
  BtrfsMachine machine;
  const std::string ours = machine.root + "/private/ours";
  machine.shell("mkdir -p " + ours);
  ASSERT_TRUE(machine.calls.fs_snapshot_create(*machine.open(machine.volume), "read"));
  const Xid xid = contract::xidOf(machine.calls, *machine.open(machine.volume), "read");
  ASSERT_TRUE(machine.calls.fs_snapshot_mount(*machine.open(machine.volume), ours, "read", xid,
                                              mntReadOnly | mntNoSuid | mntNoDev));
  Semaphore ended(machine.dispatch);
  const auto queue = machine.dispatch.makeQueue({.label = "leases"});
  const auto lease = [&](UniqueFunction<void()> handler) {
    return machine.disks.lease(machine.dispatch, queue, machine.volume, machine.root + "/private", std::move(handler));
  };
  auto dropped = lease([] { ADD_FAILURE() << "it was dropped"; });
  const auto held = lease([&] {
    EXPECT_TRUE(machine.calls.unmount(ours, true));
    ended.signal();
  });
  ASSERT_TRUE(dropped && held);
  const UniqueFd keepsLoop(::open(machine.device.c_str(), O_RDONLY | O_CLOEXEC));
  machine.shell("umount " + machine.top);
  EXPECT_FALSE(ended.waitFor(300ms)) << "people have it mounted still";
  dropped.reset();
  machine.shell("umount " + machine.volume);
  const MonotonicTime end = machine.clock.monotonic() + 2s;
  EXPECT_TRUE(ended.waitFor(2s));
  const auto isFree = [&] { return UniqueFd(::open(machine.device.c_str(), O_RDWR | O_EXCL | O_CLOEXEC)).valid(); };
  while (!isFree() && machine.clock.monotonic() < end) sleepFor(machine.dispatch, 5ms);
  EXPECT_TRUE(isFree()) << std::strerror(errno);
  EXPECT_EQ(lease([] {}), nullptr) << "nothing is mounted there";
}

}  // namespace
}  // namespace quillmark::os
