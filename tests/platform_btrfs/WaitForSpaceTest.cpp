#include <gtest/gtest.h>

#include "BtrfsMachine.h"
#include "platform/contract/SnapshotCallsSuite.h"

namespace quillmark::os {
namespace {

std::uint64_t freeBytes(BtrfsMachine& machine) {
  const auto status = machine.calls.statfs(machine.volume);
  return status->availableBlocks * status->blockSize;
}

Xid newestXid(BtrfsMachine& machine) {
  return Xid{contract::listAll(machine.calls, *machine.open(machine.volume)).back().fileId};
}

TEST(WaitForSpace, EndsWhenTheSpaceOfADeletedSnapshotIsBackOnThatVolume) {
  BtrfsMachine machine;
  machine.shell("head -c 48M /dev/urandom > " + machine.volume + "/big && sync");
  ASSERT_TRUE(machine.calls.fs_snapshot_create(*machine.open(machine.volume), "holds"));
  machine.shell("rm " + machine.volume + "/big && btrfs filesystem sync " + machine.volume);
  const std::uint64_t before = freeBytes(machine);
  ASSERT_TRUE(machine.calls.fs_snapshot_delete(*machine.open(machine.volume), "holds", newestXid(machine)));
  EXPECT_TRUE(machine.calls.waitForSpace(machine.volume, std::chrono::seconds(30)));
  EXPECT_GE(freeBytes(machine), before + 40'000'000);
  EXPECT_TRUE(machine.calls.waitForSpace(machine.volume, std::chrono::seconds(0))) << "nothing is under way";
  EXPECT_TRUE(machine.calls.waitForSpace("/nowhere", std::chrono::seconds(0)));
}

}  // namespace
}  // namespace quillmark::os
