#include "SimulatedMonthsHelper.h"

#include "base/Text.h"
#include "wire/Json.h"

namespace quillmark::months {
namespace {

// What every notice of a title has to be.
struct NoticeKind {
  const char* title;
  NotificationCategory category;
  NotificationImportance importance;
  const char* keyBefore;  // the rest of it is the volume; null: none
  double cooldown;        // 0: none
};
constexpr NoticeKind noticeKinds[] = {
    {"Quillmark snapshot failed", NotificationCategory::failure, NotificationImportance::critical, nullptr, 0},
    {"Quillmark pruned snapshots", NotificationCategory::prune, NotificationImportance::normal, nullptr, 0},
    {"Quillmark can't free more space", NotificationCategory::lowSpace, NotificationImportance::critical,
     "noPruneCandidates:", 0},
    {"Existing snapshots found", NotificationCategory::discovered, NotificationImportance::normal, nullptr, 0},
    {"Free space getting low", NotificationCategory::lowSpaceEarly, NotificationImportance::normal,
     "lowSpaceEarly:", 21600},
    {"Free space recovered", NotificationCategory::success, NotificationImportance::normal, "lowSpaceEarly:", 0},
    {"Quillmark helper is degraded", NotificationCategory::failure, NotificationImportance::critical,
     "helperHealthDegraded", 21600},
    {"Quillmark helper recovered", NotificationCategory::success, NotificationImportance::normal,
     "helperHealthDegraded", 0},
};

bool isAsItsKind(const HelperNotification& notice) {
  for (const NoticeKind& kind : noticeKinds) {
    if (notice.title != kind.title) continue;
    const bool isEnd = kind.category == NotificationCategory::success;
    const bool isOfVolume = !isEnd && kind.category != NotificationCategory::failure;
    const bool hasKey = notice.dedupeKey.has_value();
    return notice.kind == (isEnd ? HelperNotification::Kind::resolve : HelperNotification::Kind::post) &&
           notice.category == kind.category && notice.importance == kind.importance &&
           hasKey == (kind.keyBefore != nullptr) && (!hasKey || notice.dedupeKey->starts_with(kind.keyBefore)) &&
           notice.cooldown.value_or(0) == kind.cooldown && notice.emailable &&
           (!isOfVolume || (notice.deepLink == "quillmark://volume?uuid=" + notice.volumeUUID.value_or("") &&
                            notice.volumeName.has_value()));
  }
  return false;
}

HelperSubsystemHealth healthOf(const std::optional<std::string>& failure) {
  if (!failure) return {};
  return {HelperSubsystemState::unavailable, *failure};
}

}  // namespace

void Witness::broadcast(const std::string& volumeUUID, std::optional<SnapshotCadence> cadence, ScheduleEvent event) {
  told.events[asciiLower(volumeUUID)].push_back(std::string(word(event)) + "(" +
                                                std::string(cadence ? word(*cadence) : "") + ")");
}

void Witness::noticed(const std::string& json) {
  const auto notice = decodeJson<HelperNotification>(json);
  const std::string key = notice.dedupeKey.value_or("");
  const auto colon = key.find(':');
  std::string volume = asciiLower(notice.volumeUUID.value_or(""));
  if (volume.empty() && colon != std::string::npos) volume = asciiLower(key.substr(colon + 1));
  auto& heard = notice.title.starts_with("Free space") ? told.warnings : told.notices;
  heard[volume].push_back(notice.title + ": " + notice.message);
  if (!isAsItsKind(notice)) broken.push_back("not as its kind: " + json);
}

std::optional<Error> Witness::append(const HelperEvent& event) {
  const std::string volume = asciiLower(event.volumeUUID);
  const std::string what = event.kind == HelperEvent::Kind::createSnapshot ? "create" : "delete";
  told.acts[volume].push_back(what + (event.succeeded ? " done [" : " failed [") + event.snapshotName.value_or("") +
                              "] " + event.detail);
  if (failures_.cannotAudit) return posixError("write", "activity.log", EIO);
  return std::nullopt;
}

Helper::Helper(sim::Simulation& simulation, sim::SimVolumes& volumes, std::unique_ptr<sim::SimPosix> onDisk,
               const Failures& failures, const Facts& facts, Witness& witness, std::function<void()> toldListed)
    : witness_(witness), life(simulation.startLife("helper")), sim(life, volumes, {.files = std::move(onDisk)}),
      paths(sim.paths()), files(sim.files(), failures), calls(volumes, life.clock(), failures, facts),
      parts(life, sim, volumes, files, calls), failingProtection(parts.protection, failures),
      notifications(life.dispatch(), life.random(), files, sim.log(), parts.log, paths,
                    [this](const std::string& json) { witness_.noticed(json); }),
      health(life.dispatch(), life.random(), parts.log, notifications, probes()) {
  for (const Uuid& volume : failures.refusesAttributes) sim.attributes().refuseChanges(volume, EROFS);
  parts.managed.callbacks.inventoryChanged = [this](const std::string& uuid) { scheduler->bumpGeneration(uuid); };
  SchedulerServices services = parts.services(failingProtection, witness, *this);
  services.volumeList = [this, listed = std::move(toldListed)] {
    listed();
    return parts.volumeService.listVolumes();
  };
  services.automaticDeletionBlocked = [this] { return HealthMonitor::automaticDeletionBlocked(health.evaluate()); };
  scheduler = Scheduler::make(services);
}

HealthProbes Helper::probes() {
  return {.schedules = [this] { return healthOf(parts.schedules.loadFailureDescription()); },
          .settings = [this] { return healthOf(parts.settings.loadFailureDescription()); },
          .protection =
              [this] {
                try {
                  parts.protection.ensureLoaded();
                  return HelperSubsystemHealth();
                } catch (const Error& failure) {
                  return healthOf(failure.description());
                }
              }};
}

}  // namespace quillmark::months
