#include "service/HealthMonitor.h"

#include <algorithm>

#include "base/HelperLog.h"
#include "base/Text.h"
#include "notifications/HelperNotifications.h"
#include "platform/random.h"

namespace quillmark {
namespace {

constexpr const char* degradedKey = "helperHealthDegraded";
constexpr const char* recoveredTitle = "Quillmark helper recovered";
constexpr Seconds patience{120};  // a shorter spell isn't worth anybody's attention
constexpr std::chrono::seconds recheckDelay{121};
constexpr Seconds noticeCooldown{21'600};

HelperSubsystemHealth ask(const HealthProbes::Probe& probe) { return probe ? probe() : HelperSubsystemHealth(); }

std::string wordOf(HelperSubsystemState state) {
  return state == HelperSubsystemState::degraded ? "degraded" : "unavailable";
}

std::optional<std::string> problemOf(const HelperHealthStatus& status) {
  const std::pair<const char*, const HelperSubsystemHealth*> fields[] = {
      {"history", &status.history},       {"schedules", &status.schedules}, {"settings", &status.settings},
      {"protection", &status.protection}, {"audit", &status.audit},         {"scheduler", &status.scheduler}};
  std::vector<std::string> problems;
  for (const auto& [name, health] : fields) {
    if (health->state == HelperSubsystemState::healthy) continue;
    problems.push_back(std::string(name) + ": " + health->detail.value_or(wordOf(health->state)));
  }
  if (problems.empty()) return std::nullopt;
  return join(problems, "; ");
}

// Points to the episode's line in the log.
std::string referenceOf(const HelperHealthStatus& status) { return status.correlationID.substr(0, 8); }

std::optional<std::vector<std::string>> notesOf(const std::vector<HealthNote>& providers) {
  std::vector<std::string> notes;
  for (const HealthNote& provider : providers) {
    if (std::optional<std::string> note = provider()) notes.push_back(std::move(*note));
  }
  if (notes.empty()) return std::nullopt;
  return notes;
}

}  // namespace

HealthMonitor::HealthMonitor(Dispatch& dispatch, Random& random, HelperLog& log, HelperNotifications& notifications,
                             HealthProbes probes)
    : clock_(dispatch.clock()), random_(random), log_(log), notifications_(notifications), probes_(std::move(probes)),
      lock_(dispatch), episodeID_(random.uuid().upper()),
      recheckTimer_(dispatch.makeTimer(dispatch.global(QualityOfService::utility), [this] { recheck(); })) {}

HelperHealthStatus HealthMonitor::evaluate() {
  HelperHealthStatus status;
  status.audit = ask(probes_.audit);
  status.history = ask(probes_.history);
  status.schedules = ask(probes_.schedules);
  status.settings = ask(probes_.settings);
  status.protection = ask(probes_.protection);
  status.scheduler = ask(probes_.scheduler);
  status.notes = notesOf(probes_.notes);
  const Problem problem = problemOf(status);
  resolveLeftover(problem);
  status.correlationID = noteEpisode(problem);
  status.generatedAt = clock_.now();
  notify(status, problem);
  return status;
}

void HealthMonitor::resolveLeftover(const Problem& problem) {
  {
    MutexLock lock(lock_);
    if (evaluatedOnce_) return;
  }
  if (!problem && notifications_.isActive(degradedKey)) {
    notifications_.resolveIfActive(degradedKey, recoveredTitle, "The background service started healthy.");
  }
  // Only now: who looks at the same time mustn't take the leftover for something that cleared during this run.
  MutexLock lock(lock_);
  evaluatedOnce_ = true;
}

std::string HealthMonitor::noteEpisode(const std::optional<std::string>& problem) {
  std::string episode;
  {
    MutexLock lock(lock_);
    if (problem == lastProblem_) return episodeID_;
    lastProblem_ = problem;
    episodeID_ = random_.uuid().upper();
    episode = episodeID_;
  }
  if (problem) {
    log_.error("helper-health[" + episode + "] degraded: " + *problem);
  } else {
    log_.info("helper-health[" + episode + "] recovered");
  }
  return episode;
}

void HealthMonitor::notify(const HelperHealthStatus& status, const Problem& problem) {
  const bool active = notifications_.isActive(degradedKey);
  const Step step = noteSpell(problem.has_value(), active);
  if (step == Step::post) notifications_.post(degradedNotice(status, *problem));
  if (!problem && active) {
    notifications_.resolveIfActive(
        degradedKey, recoveredTitle,
        "The problem cleared on its own; the background service is healthy again. Automatic snapshot deletion, if it "
        "was paused, has resumed. Reference: " +
            referenceOf(status) + ".");
  }
  if (step == Step::recheckLater) recheckTimer_->fireAfter(recheckDelay);
}

HealthMonitor::Step HealthMonitor::noteSpell(bool hasProblem, bool active) {
  MutexLock lock(lock_);
  if (!hasProblem) {
    degradedSince_.reset();
    return Step::nothing;
  }
  const Date now = clock_.now();
  // When the clock was set back, the time counts from then.
  degradedSince_ = std::min(degradedSince_.value_or(now), now);
  if (active) return Step::nothing;
  if (now - *degradedSince_ >= patience) return Step::post;
  return std::exchange(recheckScheduled_, true) ? Step::nothing : Step::recheckLater;
}

HelperNotification HealthMonitor::degradedNotice(const HelperHealthStatus& status, const std::string& problem) {
  const std::string impact = automaticDeletionBlocked(status)
                                 ? "Automatic snapshot deletion is paused until helper health recovers."
                                 : "Automatic snapshot deletion continues; some features may be limited.";
  HelperNotification notice;
  notice.id = random_.uuid().upper();
  notice.timestamp = clock_.now();
  notice.title = "Quillmark helper is degraded";
  notice.message = problem + ". " + impact + " Reference: " + referenceOf(status) + ".";
  notice.category = NotificationCategory::failure;
  notice.importance = NotificationImportance::critical;
  notice.dedupeKey = degradedKey;
  notice.cooldown = noticeCooldown.count();
  return notice;
}

void HealthMonitor::recheck() {
  {
    MutexLock lock(lock_);
    recheckScheduled_ = false;
  }
  (void)evaluate();
}

bool HealthMonitor::automaticDeletionBlocked(const HelperHealthStatus& status) {
  const auto isHealthy = [](const HelperSubsystemHealth& health) {
    return health.state == HelperSubsystemState::healthy;
  };
  return !isHealthy(status.schedules) || !isHealthy(status.settings) || !isHealthy(status.protection);
}

}  // namespace quillmark
