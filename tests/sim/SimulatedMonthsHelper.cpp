#include "SimulatedMonthsHelper.h"

#include "base/Text.h"
#include "wire/Json.h"

namespace quillmark::months {
namespace {

double intervalOf(ScheduleEvent event) {
  switch (event) {
    case ScheduleEvent::skippedLowSpace: return 21600;
    case ScheduleEvent::createFailed: return 3600;
    case ScheduleEvent::noPruneCandidates:
    case ScheduleEvent::softCeilingExceeded: return 86400;
    case ScheduleEvent::pruneCompleted:
    case ScheduleEvent::snapshotsDiscovered: break;
  }
  return 0;
}

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

void Witness::broadcast(const std::string& volumeUUID, std::optional<SnapshotCadence> cadence, ScheduleEvent event,
                        const std::string& message) {
  const std::string volume = asciiLower(volumeUUID);
  const std::string key = std::string(word(event)) + "(" + std::string(cadence ? word(*cadence) : "") + ")";
  told.events[volume].push_back(key);
  const bool isBySweep = message.find("natural lifespan ended") != std::string::npos;
  mindThrottle(volume + (isBySweep ? key + "sweep" : key), isBySweep ? 21600 : intervalOf(event));
}

void Witness::mindThrottle(const std::string& key, double interval) {
  if (interval <= 0) return;
  const double now = simulation_.clock().now().secondsSinceReference();
  const auto last = lastTold.find(key);
  if (last != lastTold.end() && now - last->second < interval - 1e-3) broken.push_back("told too often: " + key);
  lastTold[key] = now;
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
  const auto seen = seenSince.find(volume);
  const double now = simulation_.clock().now().secondsSinceReference();
  if (event.succeeded && event.detail.starts_with("Expired") && seen != seenSince.end() && now < seen->second + 86400) {
    broken.push_back("expired within a day of the first sighting: " + *event.snapshotName);
  }
  if (failures_.cannotAudit) return posixError("write", "activity.log", EIO);
  return std::nullopt;
}

Helper::Helper(sim::Simulation& simulation, sim::SimVolumes& volumes, std::unique_ptr<sim::SimPosix> onDisk,
               const Failures& failures, const Facts& facts, Witness& witness, std::function<void()> toldListed)
    : witness_(witness), life(simulation.startLife("helper")), sim(life, volumes, {.files = std::move(onDisk)}),
      platform(sim.platform()), paths(sim.paths()), files(sim.files(), failures),
      calls(volumes, life.clock(), failures, facts),
      protection(life.dispatch(), files, life.random(), sim.log(), platform.attributes, paths),
      failingProtection(protection, failures), displayNames(life.dispatch(), files, life.random(), sim.log(), paths),
      tags(life.dispatch(), files, life.random(), platform.attributes, paths), mutations(life.dispatch()),
      queues(life.dispatch()), identity(life.dispatch(), platform.processes, platform.propertyLists, sim.files(),
                                        life.random(), sim.log(), paths, SnapshotIdentity::FileIds::areXids),
      managed{calls, platform.disks, sim.files(), sim.log(), paths, identity, {}}, apfs(managed, "apfs"),
      volumeService(life.dispatch(), platform.disks, calls, platform.processes, platform.propertyLists, paths),
      schedules(life.dispatch(), files, life.random(), sim.log(), paths),
      settings(life.dispatch(), files, life.random(), log, paths),
      clocks(life.dispatch(), files, life.random(), sim.log(), paths),
      notifications(life.dispatch(), life.random(), files, sim.log(), log, paths,
                    [this](const std::string& json) { witness_.noticed(json); }),
      health(life.dispatch(), life.random(), log, notifications, probes()), listed(std::move(toldListed)) {
  for (const Uuid& volume : failures.refusesAttributes) sim.attributes().refuseChanges(volume, EROFS);
  for (const std::string& directory : {paths.userMountRoot, paths.privateMountRoot, paths.stateDirectory}) {
    createDirectories(sim.files(), directory, 0755);
  }
  sim.processes().script(paths.diskutil, [this, &volumes](const ProcessRequest& request) {
    return sim::SimProgram{.output = snapshotCatalog(volumes, request.arguments.back())};
  });
  managed.callbacks.inventoryChanged = [this](const std::string& uuid) { scheduler->bumpGeneration(uuid); };
  scheduler = Scheduler::make({
      .dispatch = life.dispatch(),
      .random = life.random(),
      .calls = calls,
      .disks = platform.disks,
      .platformLog = sim.log(),
      .log = log,
      .paths = paths,
      .apfs = apfs,
      .volumeQueues = queues,
      .mutations = mutations,
      .protection = failingProtection,
      .names = displayNames,
      .tags = tags,
      .audit = witness,
      .schedules = schedules,
      .settings = settings,
      .clocks = clocks,
      .notifier = *this,
      .history = nullptr,
      .volumeList =
          [this] {
            listed();
            return volumeService.listVolumes();
          },
      .automaticDeletionBlocked = [this] { return HealthMonitor::automaticDeletionBlocked(health.evaluate()); },
      .scheduleSnapshotsChanged = [](const std::string&) {},
      .dropCachedXidData = {},
      .invalidateVolumeList = {},
      .volumeAppeared = {},
  });
}

std::string Helper::snapshotCatalog(sim::SimVolumes& volumes, const std::string& bsdName) {
  PropertyArray entries;
  for (const sim::SimVolume& volume : volumes.volumes()) {
    if (volume.description.mediaBsdName != bsdName) continue;
    for (const sim::SimSnapshot& snapshot : volume.snapshots) {
      entries.push_back(PropertyList(PropertyDictionary{{"SnapshotName", PropertyList(snapshot.name)},
                                                        {"SnapshotXID", PropertyList(snapshot.xid.value)}}));
    }
  }
  return platform.propertyLists.write(
      PropertyList(PropertyDictionary{{"Snapshots", PropertyList(std::move(entries))}}));
}

HealthProbes Helper::probes() {
  return {.schedules = [this] { return healthOf(schedules.loadFailureDescription()); },
          .settings = [this] { return healthOf(settings.loadFailureDescription()); },
          .protection =
              [this] {
                try {
                  protection.ensureLoaded();
                  return HelperSubsystemHealth();
                } catch (const Error& failure) {
                  return healthOf(failure.description());
                }
              }};
}

}  // namespace quillmark::months
