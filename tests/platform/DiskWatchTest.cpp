#include "platform/contract/DiskWatchSuite.h"
#include "platform/sim/SimDisks.h"
#include "platform/sim/Simulation.h"

namespace quillmark {
namespace {

class SimBackend final {
 public:
  SimBackend() { volumes_.add(sim::makeSimVolume(*Uuid::parse("0f0e0d0c-0b0a-4908-8706-050403020100"))); }
  Dispatch& dispatch() { return life_.dispatch(); }
  Disks& disks() { return disks_; }
  void run(FunctionRef<void()> body) { ASSERT_TRUE(simulation_.run(life_, body)); }
  [[nodiscard]] std::string path(const std::string& name) const { return "/Volumes/" + name; }
  void mount(const std::string& name) { volumes_.add(sim::makeSimVolume(uuid_, name, path(name), "disk2s1")); }
  void unmount(const std::string&) { volumes_.take(uuid_); }
  void remountReadOnly(const std::string& name) {
    volumes_.change(uuid_, [](sim::SimVolume& volume) { volume.description.mediaWritable = false; });
    volumes_.announce({DiskEvent::Kind::descriptionChanged, path(name), "apfs", "disk2s1"});
  }
  void makeNoise() {}

 private:
  const Uuid uuid_ = *Uuid::parse("1f0e0d0c-0b0a-4908-8706-050403020100");
  sim::Simulation simulation_;
  sim::Life& life_ = simulation_.startLife("helper");
  sim::SimVolumes volumes_;
  sim::SimDisks disks_{volumes_};
};

}  // namespace

namespace contract {
INSTANTIATE_TYPED_TEST_SUITE_P(Simulated, DiskWatchSuite, SimBackend);
}  // namespace contract
}  // namespace quillmark
