// HealthMonitor: judges the health of the whole service, and tells one spell of trouble from the next.
// Threads: thread-safe; probes run outside the lock.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/sync.h"
#include "wire/Records.h"

namespace quillmark {

class HelperLog;
class Random;

// What administrators should know though nothing is broken; absent while there is nothing to say.
using HealthNote = std::function<std::optional<std::string>()>;

// One for each subsystem; an empty one belongs to a subsystem that isn't part of this build and counts as healthy.
struct HealthProbes {
  using Probe = std::function<HelperSubsystemHealth()>;
  Probe audit;
  Probe history;
  Probe schedules;
  Probe settings;
  Probe protection;
  Probe scheduler;
  std::vector<HealthNote> notes;
};

class HealthMonitor final {
 public:
  HealthMonitor(Threads& threads, Random& random, HelperLog& log, HealthProbes probes);

  [[nodiscard]] HelperHealthStatus evaluate();
  // True while the policies, the settings or the protections can't be trusted.
  [[nodiscard]] static bool automaticDeletionBlocked(const HelperHealthStatus& status);

 private:
  // The current episode's ID, a new one when the problem differs from the last one seen.
  [[nodiscard]] std::string noteEpisode(const std::optional<std::string>& problem);

  Threads& threads_;
  Random& random_;
  HelperLog& log_;
  const HealthProbes probes_;

  Mutex lock_;
  std::string episodeID_ GUARDED_BY(lock_);
  std::optional<std::string> lastProblem_ GUARDED_BY(lock_);
};

}  // namespace quillmark
