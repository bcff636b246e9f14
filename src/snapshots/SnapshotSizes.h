// SnapshotSizes: how many bytes deleting a snapshot would free, as far as measured.
// Threads: thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <vector>

#include "base/Xid.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

struct MeasuredSizes {
  std::map<Xid, std::uint64_t> bytes;
  std::uint64_t generation = 0;
};

class SnapshotSizes {
 public:
  virtual ~SnapshotSizes() = default;
  // Never blocks on a measurement.
  [[nodiscard]] virtual MeasuredSizes sizes(const VolumeInfo& volume, const std::vector<Xid>& all,
                                            const std::vector<Xid>& measurable, bool wantSizes, bool force) = 0;
  // Starts measuring what is outstanding.
  virtual void schedule(const VolumeInfo& volume) = 0;
  // Schedules and waits until nothing is outstanding or the time passed.
  [[nodiscard]] virtual MeasuredSizes waitForSizes(const VolumeInfo& volume, std::chrono::nanoseconds timeout) = 0;
};

}  // namespace quillmark
