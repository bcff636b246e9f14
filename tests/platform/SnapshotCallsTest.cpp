#include "platform/contract/SnapshotCallsSuite.h"
#include "platform/sim/MachineClock.h"
#include "platform/sim/SimDisks.h"
#include "platform/sim/SimSnapshotCalls.h"

namespace quillmark {
namespace {

class SimReader final {
 public:
  SimReader(sim::SimVolumes& volumes, const std::string& directory) { volumes.setBusy(directory, true); }
  [[nodiscard]] bool canRead() const { return true; }
};

class SimBackend final {
 public:
  SimBackend() { volumes_.add(sim::makeSimVolume(uuid_)); }
  SnapshotCalls& calls() { return calls_; }
  Disks& disks() { return disks_; }
  [[nodiscard]] std::string mountPoint() const { return "/Volumes/Data"; }
  [[nodiscard]] VolumeUuid uuid() const { return VolumeUuid(uuid_.upper()); }
  std::string makeDirectory(const std::string& name) { return "/Volumes/" + name; }
  void makeForeign() { EXPECT_TRUE(volumes_.addSnapshot(uuid_, ":foreign", clock_.now())); }
  void removeForeign() { EXPECT_TRUE(volumes_.removeSnapshot(uuid_, ":foreign")); }
  std::unique_ptr<SimReader> openReader(const std::string& directory) {
    return std::make_unique<SimReader>(volumes_, directory);
  }

 private:
  const Uuid uuid_ = *Uuid::parse("0f0e0d0c-0b0a-4908-8706-050403020100");
  sim::MachineClock clock_{Date::from1970(1'772'355'600), "UTC"};
  sim::SimVolumes volumes_;
  sim::SimSnapshotCalls calls_{volumes_, clock_};
  sim::SimDisks disks_{volumes_};
};

}  // namespace

namespace contract {
INSTANTIATE_TYPED_TEST_SUITE_P(Simulated, SnapshotCallsSuite, SimBackend);
}  // namespace contract

namespace sim {
namespace {

TEST(SimVolumes, FailAsToldLetOthersInAndKeepSnapshotsOfWhatIsUnplugged) {
  const Uuid uuid = *Uuid::parse("0f0e0d0c-0b0a-4908-8706-050403020100");
  MachineClock clock(Date::from1970(1'772'355'600), "UTC");
  SimVolumes volumes;
  volumes.add(makeSimVolume(uuid));
  SimSnapshotCalls calls(volumes, clock);
  volumes.failNext(SimCall::create, ENOSPC, 2);
  std::vector<std::string> seen;
  volumes.watchCalls([&](SimCall call, const std::string& subject) {
    seen.push_back(subject);
    if (call == SimCall::list) static_cast<void>(volumes.addSnapshot(uuid, "behind-our-back", clock.now()));
  });
  const auto volume = calls.open("/Volumes/Data", VolumeUuid(uuid.lower()));
  ASSERT_TRUE(volume);
  EXPECT_EQ(calls.fs_snapshot_create(**volume, "a").error(), ENOSPC);
  EXPECT_EQ(calls.fs_snapshot_create(**volume, "a").error(), ENOSPC);
  EXPECT_EQ(calls.fs_snapshot_create(**volume, "a").error(), 0);
  EXPECT_THAT(contract::namesOf(contract::listAll(calls, **volume)), ::testing::ElementsAre("a", "behind-our-back"));
  EXPECT_THAT(seen, ::testing::ElementsAre("/Volumes/Data", "a", "a", "a", uuid.lower(), uuid.lower()));
  volumes.take(uuid);
  EXPECT_EQ(calls.open("/Volumes/Data", VolumeUuid(uuid.lower())).error(), ENOENT);
  volumes.add(makeSimVolume(uuid));
  EXPECT_EQ(volumes.snapshots(uuid).size(), 2u);
}

}  // namespace
}  // namespace sim
}  // namespace quillmark
