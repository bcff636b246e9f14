// LinuxThisProcess: the running process, by the calls of section 2 of the manual.
#pragma once

#include "platform/ThisProcess.h"

namespace quillmark::os {

class LinuxThisProcess final : public ThisProcess {
 public:
  int pid() override;
  std::uint32_t uid() override;
  std::uint32_t effectiveUid() override;
  std::uint32_t gid() override;
  SysResult<DescriptorLimit> descriptorLimit() override;
  SysStatus setDescriptorLimit(DescriptorLimit limit) override;
  void writeStandardError(std::string_view text) override;
  void giveBackFreeMemory() override;
};

}  // namespace quillmark::os
