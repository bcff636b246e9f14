#include "TemporaryDirectory.h"
#include "platform/contract/PosixSuite.h"
#include "platform/linux/Posix.h"
#include "platform/sim/SimPosix.h"

namespace quillmark::contract {
namespace {

class LinuxPosixBackend final {
 public:
  Posix& posix() { return posix_; }
  [[nodiscard]] const std::string& directory() const { return directory_.path(); }

 private:
  os::LinuxPosix posix_;
  const TemporaryDirectory directory_;
};

class SimPosixBackend final {
 public:
  Posix& posix() { return posix_; }
  [[nodiscard]] const std::string& directory() const { return posix_.root(); }

 private:
  sim::SimPosix posix_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(Linux, PosixSuite, LinuxPosixBackend);
INSTANTIATE_TYPED_TEST_SUITE_P(Simulated, PosixSuite, SimPosixBackend);

}  // namespace
}  // namespace quillmark::contract
