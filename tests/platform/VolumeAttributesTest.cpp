#include "platform/contract/VolumeAttributesSuite.h"
#include "platform/sim/SimVolumeAttributes.h"

namespace quillmark {
namespace {

const Uuid meant = *Uuid::parse("0f0e0d0c-0b0a-4908-8706-050403020100");
const Uuid another = *Uuid::parse("1f0e0d0c-0b0a-4908-8706-050403020100");

class SimBackend final {
 public:
  SimBackend() { volumes_.add(sim::makeSimVolume(meant)); }
  VolumeAttributes& attributes() { return attributes_; }
  [[nodiscard]] std::string mountPoint() const { return "/Volumes/Data"; }
  [[nodiscard]] VolumeUuid uuid() const { return VolumeUuid(meant.upper()); }
  void makeReadOnly() {
    volumes_.change(meant, [](sim::SimVolume& volume) { volume.mountFlags |= mntReadOnly; });
  }
  void mountAnother() {
    volumes_.take(meant);
    volumes_.add(sim::makeSimVolume(another));
  }

 private:
  sim::SimVolumes volumes_;
  sim::SimPosix files_;
  sim::SimVolumeAttributes attributes_{volumes_, files_};
};

}  // namespace

namespace contract {
INSTANTIATE_TYPED_TEST_SUITE_P(Simulated, VolumeAttributesSuite, SimBackend);
}  // namespace contract

namespace sim {
namespace {

std::string valueOf(SimPosix& files) { return files.attributes().value(meant, "name").value_or("none"); }

TEST(SimVolumeAttributes, AreCountedAsFileCallsAndSurviveWhatFilesSurvive) {
  SimVolumes volumes;
  volumes.add(makeSimVolume(meant));
  SimPosix files;
  SimVolumeAttributes attributes(volumes, files);
  const auto opened = attributes.open("/Volumes/Data", VolumeUuid(meant.lower()));
  ASSERT_TRUE((*opened)->write("name", "old"));
  EXPECT_EQ(files.calls(), 3U) << "open, set, sync";

  files.setPlan({.fault = Fault::fail, .atCall = 1, .only = PosixCall::fsyncVolume, .error = EIO});
  EXPECT_EQ((*opened)->write("name", "new").error(), EIO);
  EXPECT_EQ(valueOf(files), "new") << "set, but not on the disk for certain";
  EXPECT_EQ(valueOf(*files.copyForSuccessor()), "new");
  std::set<std::string> found;
  for (std::uint64_t seed = 0; seed < 20; ++seed) found.insert(valueOf(*files.powerCut(seed)));
  EXPECT_EQ(found, (std::set<std::string>{"old", "new"}));

  ASSERT_TRUE((*opened)->write("name", "newest"));
  for (std::uint64_t seed = 0; seed < 20; ++seed) EXPECT_EQ(valueOf(*files.powerCut(seed)), "newest");
  files.kill();
  EXPECT_EQ((*opened)->remove("name").error(), EIO);
  EXPECT_EQ(valueOf(files), "newest");
}

}  // namespace
}  // namespace sim
}  // namespace quillmark
