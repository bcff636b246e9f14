// LowSpacePass: frees space on a volume that is below its minimum, oldest snapshot first.
// Threads: confined to the volume's queue, which it holds while it waits for space to come back.
// Invariant: the last snapshot of a volume, and the newest of each cadence, stay.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "scheduling/FreeSpaceMeter.h"
#include "scheduling/ScheduleEvents.h"
#include "scheduling/SnapshotDeleter.h"
#include "scheduling/SpaceTurns.h"
#include "scheduling/rules/PruneRules.h"
#include "scheduling/rules/SchedulePolicy.h"

namespace quillmark {

// As people are told of what went.
enum class PruneKind { automatic, manual, foreign };
[[nodiscard]] std::string_view word(PruneKind kind);
[[nodiscard]] PruneKind pruneKind(std::string_view snapshotName);

class LowSpacePass final {
 public:
  static constexpr int mostDeletions = 4;
  static constexpr int mostWaits = 4;  // after each deletion
  static constexpr std::chrono::seconds wait{3};
  // After each deletion, and before those waits. When space takes longer to come back, the next check goes on.
  static constexpr std::chrono::seconds mostReclaiming{60};

  LowSpacePass(const SchedulerServices& services, const DeletionGate& gate, FreeSpaceMeter& meter,
               const SnapshotDeleter& deleter, ScheduleEvents& events)
      : services_(services), gate_(gate), meter_(meter), deleter_(deleter), events_(events), turns_(services.dispatch) {
  }

  // Calls `again`, when it could be this volume's turn, if now it is the turn of another that shares its space.
  void run(const std::string& uuid, Work again);

 private:
  struct Run {
    VolumeInfo volume;
    SchedulePolicy policy;
    std::int64_t freeAtStart = 0;
    std::int64_t threshold = 0;
    std::array<std::size_t, 3> deleted{};  // by PruneKind
    bool deletionFailed = false;

    [[nodiscard]] std::size_t total() const { return deleted[0] + deleted[1] + deleted[2]; }
  };
  struct Candidates {
    std::vector<PruneRules::Snap> oldestFirst;
    std::size_t snapshotCount = 0;
  };

  void prune(Run& run);
  // True when enough is free, or space is still on its way.
  [[nodiscard]] bool awaitSpace(const Run& run);
  [[nodiscard]] Candidates candidates(const Run& run) const;
  [[nodiscard]] std::int64_t freeNow(const Run& run);
  void reportNothing(const Run& run);
  void reportPruned(const Run& run);
  void sendNoCandidates(const Run& run, const std::string& message);

  const SchedulerServices& services_;
  const DeletionGate& gate_;
  FreeSpaceMeter& meter_;
  const SnapshotDeleter& deleter_;
  ScheduleEvents& events_;
  SpaceTurns turns_;
};

}  // namespace quillmark
