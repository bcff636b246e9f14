// forEachFault: runs one operation again and again, each time with another of its file calls going wrong, until none
// is left to go wrong: every error path is visited and nobody lists them.
//
//   const auto complaints = forEachFault({}, prepare, replaceTheStore, [](SimPosix& after, const FaultRun& run) {
//     return holdsOldOrNew(after) ? "" : "a mix of old and new";
//   });
//   EXPECT_THAT(complaints, IsEmpty());
//
// The faults: each errno, a short write, a kill, and a power cut where a kill would be and after the end.
#pragma once

#include <cerrno>
#include <string>
#include <vector>

#include "base/FunctionRef.h"
#include "platform/sim/SimPosix.h"

namespace quillmark::sim {

struct FaultSweepOptions {
  std::uint64_t seed = 1;
  std::vector<int> errors{EIO, ENOSPC};
  unsigned powerCutsEach = 6;
};

struct FaultRun {
  FaultPlan plan;
  bool powerCut = false;
  // The operation came back and said nothing of a failure.
  bool completed = false;
  [[nodiscard]] std::string describe() const;
};

// `prepare` makes what stands on disk, synced, before the operation. `check` looks at what is left, after a kill or a
// power cut as the next life finds it, and gives its complaint or an empty text; it is not disturbed. Answers the
// complaints, each with the fault and seed that bring it back.
[[nodiscard]] std::vector<std::string> forEachFault(const FaultSweepOptions& options,
                                                    FunctionRef<void(SimPosix&)> prepare,
                                                    FunctionRef<void(SimPosix&)> operation,
                                                    FunctionRef<std::string(SimPosix&, const FaultRun&)> check);

}  // namespace quillmark::sim
