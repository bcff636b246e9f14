// SimThisProcess: a process with settable identity and limits, whose standard error is kept.
#pragma once

#include <cerrno>
#include <string>

#include "platform/ThisProcess.h"

namespace quillmark::sim {

class SimThisProcess final : public ThisProcess {
 public:
  explicit SimThisProcess(int processId) : processId_(processId) {}

  void setIdentity(std::uint32_t uid, std::uint32_t effectiveUid, std::uint32_t gid) {
    uid_ = uid;
    effectiveUid_ = effectiveUid;
    gid_ = gid;
  }
  // The errno with which limits can't be read or set; 0 for none.
  void failLimits(int error) { limitError_ = error; }
  [[nodiscard]] const std::string& standardError() const { return standardError_; }
  [[nodiscard]] int timesMemoryWasGivenBack() const { return timesMemoryWasGivenBack_; }

  int pid() override { return processId_; }
  std::uint32_t uid() override { return uid_; }
  std::uint32_t effectiveUid() override { return effectiveUid_; }
  std::uint32_t gid() override { return gid_; }
  SysResult<DescriptorLimit> descriptorLimit() override {
    if (limitError_ != 0) return Errno{limitError_};
    return limit_;
  }
  SysStatus setDescriptorLimit(DescriptorLimit limit) override {
    if (limitError_ != 0) return Errno{limitError_};
    if (limit.soft > limit.hard) return Errno{EINVAL};
    if (limit.hard > limit_.hard && effectiveUid_ != 0) return Errno{EPERM};
    limit_ = limit;
    return {};
  }
  void writeStandardError(std::string_view text) override { standardError_ += text; }
  void giveBackFreeMemory() override { ++timesMemoryWasGivenBack_; }

 private:
  const int processId_;
  std::uint32_t uid_ = 0;
  std::uint32_t effectiveUid_ = 0;
  std::uint32_t gid_ = 0;
  DescriptorLimit limit_{.soft = 1024, .hard = 524288};
  int limitError_ = 0;
  std::string standardError_;
  int timesMemoryWasGivenBack_ = 0;
};

}  // namespace quillmark::sim
