// HealthMonitor: judges the health of the whole service, tells one spell of trouble from the next, and lets people know
// of trouble that lasts.
// Ownership: borrows all it is given, which must outlive it.
// Threads:   thread-safe; probes run and notifications leave outside the lock.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/dispatch.h"
#include "wire/Records.h"

namespace quillmark {

class HelperLog;
class HelperNotifications;
class Random;
struct HelperNotification;

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
  HealthMonitor(Dispatch& dispatch, Random& random, HelperLog& log, HelperNotifications& notifications,
                HealthProbes probes);

  [[nodiscard]] HelperHealthStatus evaluate();
  // True while the policies, the settings or the protections can't be trusted.
  [[nodiscard]] static bool automaticDeletionBlocked(const HelperHealthStatus& status);

 private:
  using Problem = std::optional<std::string>;
  enum class Step { nothing, post, recheckLater };

  // What an earlier process left active is over when the first look finds nothing wrong.
  void resolveLeftover(const Problem& problem) EXCLUDES(lock_);
  // The current episode's ID, a new one when the problem differs from the last one seen.
  [[nodiscard]] std::string noteEpisode(const Problem& problem) EXCLUDES(lock_);
  void notify(const HelperHealthStatus& status, const Problem& problem) EXCLUDES(lock_);
  [[nodiscard]] Step noteSpell(bool hasProblem, bool active) EXCLUDES(lock_);
  [[nodiscard]] HelperNotification degradedNotice(const HelperHealthStatus& status, const std::string& problem);
  void recheck() EXCLUDES(lock_);

  Clock& clock_;
  Random& random_;
  HelperLog& log_;
  HelperNotifications& notifications_;
  const HealthProbes probes_;

  Mutex lock_;
  bool evaluatedOnce_ GUARDED_BY(lock_) = false;
  std::optional<Date> degradedSince_ GUARDED_BY(lock_);
  bool recheckScheduled_ GUARDED_BY(lock_) = false;
  std::string episodeID_ GUARDED_BY(lock_);
  Problem lastProblem_ GUARDED_BY(lock_);

  const std::unique_ptr<Timer> recheckTimer_;  // last: it must be gone before what it touches
};

}  // namespace quillmark
