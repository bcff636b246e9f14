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
}  // namespace quillmark
