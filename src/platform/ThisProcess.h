// ThisProcess: what the running process may ask and change of itself.
// Threads: thread-safe.
#pragma once

#include <cstdint>
#include <string_view>

#include "base/SysResult.h"

namespace quillmark {

struct DescriptorLimit {
  std::uint64_t soft = 0;
  std::uint64_t hard = 0;  // the largest value when unlimited
};

class ThisProcess {
 public:
  virtual ~ThisProcess() = default;
  [[nodiscard]] virtual int pid() = 0;
  [[nodiscard]] virtual std::uint32_t uid() = 0;
  [[nodiscard]] virtual std::uint32_t effectiveUid() = 0;
  [[nodiscard]] virtual std::uint32_t gid() = 0;
  [[nodiscard]] virtual SysResult<DescriptorLimit> descriptorLimit() = 0;
  [[nodiscard]] virtual SysStatus setDescriptorLimit(DescriptorLimit limit) = 0;
  // One write to standard error; a failure is ignored.
  virtual void writeStandardError(std::string_view text) = 0;
  // Memory that the process freed goes back to the machine; may take tens of milliseconds, in which others that want
  // memory wait.
  virtual void giveBackFreeMemory() = 0;
};

}  // namespace quillmark
