#include "TemporaryDirectory.h"
#include "platform/contract/FileWorkSuite.h"
#include "platform/linux/FileWork.h"
#include "platform/sim/SimFileWork.h"

namespace quillmark::contract {
namespace {

class LinuxFileWorkBackend final {
 public:
  FileWork& work() { return work_; }
  [[nodiscard]] const std::string& directory() const { return directory_.path(); }

 private:
  os::LinuxFileWork work_;
  const TemporaryDirectory directory_;
};

class SimFileWorkBackend final {
 public:
  FileWork& work() { return work_; }
  [[nodiscard]] const std::string& directory() const { return work_.root(); }

 private:
  sim::SimFileWork work_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(Linux, FileWorkSuite, LinuxFileWorkBackend);
INSTANTIATE_TYPED_TEST_SUITE_P(Simulated, FileWorkSuite, SimFileWorkBackend);

}  // namespace
}  // namespace quillmark::contract
