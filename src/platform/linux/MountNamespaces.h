// Is a subvolume mounted anywhere on this machine? A snapshot that is mounted in a container's or a service's own mount
// namespace stands in no table of ours, and destroying it pulls its files away from under whoever reads there.
// Threads: SubvolumeSearch is thread-compatible, the function pure.
#pragma once

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "base/SysResult.h"
#include "platform/clock.h"
#include "platform/linux/BtrfsCalls.h"
#include "platform/linux/MountTable.h"

namespace quillmark::os {

using SubvolumeIds = std::set<btrfs::SubvolumeId>;

// Looks for the mounts of one subvolume, or gathers all that are mounted of one device, in mountinfo's text
// (proc_pid_mountinfo(5)), handed over in pieces that may end anywhere. Whoever has a namespace decides how many lines
// there are and how long: nothing is kept of them but the ids of subvolumes, which the kernel writes.
class SubvolumeSearch final {
 public:
  SubvolumeSearch(DeviceNumber device, btrfs::SubvolumeId subvolume);
  // `all` outlives the search, which never counts as found.
  SubvolumeSearch(DeviceNumber device, SubvolumeIds& all);

  // Begins another table; what was found stays found.
  void restart();
  void feed(std::string_view piece);
  [[nodiscard]] bool found() const { return found_; }

 private:
  enum class Field { id, parent, device, places, type, source, superOptions, restOfLine };

  [[nodiscard]] std::string_view token() const { return {token_, tokenSize_}; }
  void append(std::string_view part);
  void endToken();
  void endLine();
  void gather(std::string_view digits);

  const std::string device_;     // as the table writes it
  const std::string subvolume_;  // the option that tells it; empty where all are wanted
  SubvolumeIds* const all_;
  bool found_ = false;
  Field field_ = Field::id;
  char token_[48];  // longer than any that is compared; what doesn't fit is cut off
  std::size_t tokenSize_ = 0;
};

// For all tables together.
struct NamespaceLimits {
  std::chrono::nanoseconds time = std::chrono::seconds(5);
  std::uint64_t bytes = 1ull << 30;
};

// Reads the table of each namespace, this process's too, once for each root from which its processes see it. Where we
// can't know, the caller refuses: any errno but "no such process" is handed on, and EBUSY past the limits. A namespace
// without processes, kept by a descriptor or a bind, isn't seen.
[[nodiscard]] SysResult<bool> isMountedAnywhere(DeviceNumber device, btrfs::SubvolumeId subvolume, Clock& clock,
                                                const NamespaceLimits& limits = {});

// All subvolumes of the device that are mounted anywhere; the same is read, and the same refused.
[[nodiscard]] SysResult<SubvolumeIds> mountedAnywhere(DeviceNumber device, Clock& clock,
                                                      const NamespaceLimits& limits = {});

}  // namespace quillmark::os
