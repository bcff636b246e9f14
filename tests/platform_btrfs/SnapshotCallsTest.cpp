#include <fcntl.h>
#include <unistd.h>

#include "BtrfsMachine.h"
#include "platform/contract/SnapshotCallsSuite.h"

namespace quillmark {
namespace {

// Before any test, and so before any thread, is the time to enter the namespace.
class Sandbox final : public ::testing::Environment {
 public:
  void SetUp() override {
    const std::string missing = os::whatIsMissing();
    if (missing.empty()) return;
    const char* ci = std::getenv("CI");
    if (ci && std::string_view(ci) == "true") FAIL() << "These tests need btrfs on a loop device: " << missing;
    GTEST_SKIP() << "No btrfs here: " << missing;
  }
};
const auto* const sandbox = ::testing::AddGlobalTestEnvironment(new Sandbox);

class Reader final {
 public:
  explicit Reader(const std::string& directory) : file_(::open((directory + "/file").c_str(), O_RDONLY | O_CLOEXEC)) {}
  [[nodiscard]] bool canRead() const {
    char byte;
    return ::pread(file_.get(), &byte, 1, 0) == 1;
  }

 private:
  UniqueFd file_;
};

class BtrfsBackend final {
 public:
  BtrfsBackend() { machine_.shell("echo content > " + machine_.volume + "/file"); }
  SnapshotCalls& calls() { return machine_.calls; }
  Disks& disks() { return machine_.disks; }
  [[nodiscard]] std::string mountPoint() const { return machine_.volume; }
  [[nodiscard]] VolumeUuid uuid() { return machine_.uuidAt(machine_.volume); }
  std::string makeDirectory(const std::string& name) {
    const std::string directory = machine_.root + "/" + name;
    machine_.shell("mkdir -p " + directory);
    return directory;
  }
  void makeForeign() {
    machine_.shell("btrfs -q subvolume snapshot -r " + machine_.volume + " " + machine_.top + "/foreign");
  }
  void removeForeign() { machine_.shell("btrfs -q subvolume delete " + machine_.top + "/foreign"); }
  std::unique_ptr<Reader> openReader(const std::string& directory) { return std::make_unique<Reader>(directory); }

 private:
  os::BtrfsMachine machine_;
};

}  // namespace

namespace contract {
INSTANTIATE_TYPED_TEST_SUITE_P(Btrfs, SnapshotCallsSuite, BtrfsBackend);
}  // namespace contract

}  // namespace quillmark
