#include "platform/sim/FaultPlan.h"

#include <fmt/format.h>

#include <array>
#include <cstring>

namespace quillmark::sim {

std::string nameOf(PosixCall call) {
  static constexpr std::array names{"open",      "read",     "write",       "fsync",      "fchmod", "fchown",
                                    "ftruncate", "fstat",    "lockFile",    "lstat",      "mkdir",  "rmdir",
                                    "unlink",    "rename",   "chmod",       "chown",      "list",   "openVolume",
                                    "getxattr",  "setxattr", "removexattr", "fsyncVolume"};
  return names.at(static_cast<std::size_t>(call));
}

std::string FaultPlan::describe() const {
  const std::string where = fmt::format("call {}{}", atCall, only ? " of " + nameOf(*only) : "");
  switch (fault) {
    case Fault::none: return fmt::format("no fault, seed {}", seed);
    case Fault::fail: return fmt::format("{} at {}, seed {}", strerrorname_np(error), where, seed);
    case Fault::shortWrite: return fmt::format("short write at {}, seed {}", where, seed);
    case Fault::kill: return fmt::format("kill at {}, seed {}", where, seed);
  }
  return {};
}

}  // namespace quillmark::sim
