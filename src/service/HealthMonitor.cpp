#include "service/HealthMonitor.h"

#include "base/HelperLog.h"
#include "base/Text.h"
#include "platform/random.h"

namespace quillmark {
namespace {

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

std::optional<std::vector<std::string>> notesOf(const std::vector<HealthNote>& providers) {
  std::vector<std::string> notes;
  for (const HealthNote& provider : providers) {
    if (std::optional<std::string> note = provider()) notes.push_back(std::move(*note));
  }
  if (notes.empty()) return std::nullopt;
  return notes;
}

}  // namespace

HealthMonitor::HealthMonitor(Threads& threads, Random& random, HelperLog& log, HealthProbes probes)
    : threads_(threads), random_(random), log_(log), probes_(std::move(probes)), lock_(threads),
      episodeID_(random.uuid().upper()) {}

HelperHealthStatus HealthMonitor::evaluate() {
  HelperHealthStatus status;
  status.audit = ask(probes_.audit);
  status.history = ask(probes_.history);
  status.schedules = ask(probes_.schedules);
  status.settings = ask(probes_.settings);
  status.protection = ask(probes_.protection);
  status.scheduler = ask(probes_.scheduler);
  status.notes = notesOf(probes_.notes);
  status.correlationID = noteEpisode(problemOf(status));
  status.generatedAt = threads_.clock().now();
  return status;
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

bool HealthMonitor::automaticDeletionBlocked(const HelperHealthStatus& status) {
  const auto isHealthy = [](const HelperSubsystemHealth& health) {
    return health.state == HelperSubsystemState::healthy;
  };
  return !isHealthy(status.schedules) || !isHealthy(status.settings) || !isHealthy(status.protection);
}

}  // namespace quillmark
