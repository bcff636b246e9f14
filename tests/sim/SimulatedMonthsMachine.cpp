#include "SimulatedMonthsMachine.h"

#include <cmath>

#include "base/Text.h"
#include "platform/sim/Draws.h"

namespace quillmark::months {
namespace {

constexpr std::uint64_t blockSize = 1000;
constexpr std::size_t storyLength = 25;

Moment momentOf(Date date) { return std::llround(date.secondsSinceReference()) * second; }

SchedulePolicy policyOf(const ModelPolicy& policy) {
  SchedulePolicy made;
  made.enabled = policy.enabled;
  for (std::size_t i = 0; i < cadences; ++i) {
    made.retention[allCadences.at(i)] = policy.keep.at(i);
    if (policy.on.at(i)) made.enabledCadences.insert(allCadences.at(i));
  }
  made.pruneOnLowSpace = policy.pruneOnLowSpace;
  made.lowSpaceBytes = policy.lowSpaceBytes;
  made.protectForeignSnapshots = policy.protectForeign;
  if (!policy.isTracked) made.tracked = false;
  return made;
}

void stamp(ModelPolicy& policy, const std::optional<ModelPolicy>& before, double now) {
  policy.disabledAt.reset();
  if (!policy.enabled) policy.disabledAt = before && !before->enabled ? before->disabledAt.value_or(now) : now;
  for (std::size_t i = 0; i < cadences; ++i) {
    auto& stopped = policy.cadenceDisabledAt.at(i);
    stopped.reset();
    if (policy.on.at(i)) continue;
    stopped = before && !before->on.at(i) ? before->cadenceDisabledAt.at(i).value_or(now) : now;
  }
}

bool matches(const std::string& told, const std::string& expected) {
  if (!expected.ends_with('*')) return told == expected;
  return told.starts_with(std::string_view(expected).substr(0, expected.size() - 1));
}

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

}  // namespace

void Witness::broadcast(const std::string& volumeUUID, std::optional<SnapshotCadence> cadence, ScheduleEvent event,
                        const std::string& message) {
  const std::string volume = asciiLower(volumeUUID);
  const std::string key = std::string(word(event)) + "(" + std::string(cadence ? word(*cadence) : "") + ")";
  told.events[volume].push_back(key);
  const bool isBySweep = message.find("natural lifespan ended") != std::string::npos;
  if (isBySweep || intervalOf(event) > 0) mindThrottle(volume, isBySweep ? key + "sweep" : key, event);
}

void Witness::mindThrottle(const std::string& volume, const std::string& key, ScheduleEvent event) {
  const double now = simulation_.clock().now().secondsSinceReference();
  const double interval = event == ScheduleEvent::pruneCompleted ? 21600 : intervalOf(event);
  const auto last = lastTold.find(volume + key);
  if (last != lastTold.end() && now - last->second < interval - 1e-3) broken.push_back("told too often: " + key);
  lastTold[volume + key] = now;
}

void Witness::post(const HelperNotification& notification) {
  active_.insert(*notification.dedupeKey);
  told.warnings[asciiLower(*notification.volumeUUID)].push_back("warned");
}

void Witness::resolve(const std::string& key, const std::string&, const std::string&) {
  active_.erase(key);
  told.warnings[asciiLower(key.substr(key.find(':') + 1))].push_back("resolved");
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
  return std::nullopt;
}

Helper::Helper(sim::Simulation& simulation, sim::SimVolumes& volumes, std::unique_ptr<sim::SimPosix> files,
               const Failures& failures, const Facts& facts, Witness& witness, std::function<void()> toldListed)
    : life(simulation.startLife("helper")), sim(life, volumes, {.files = std::move(files)}), platform(sim.platform()),
      paths(sim.paths()), calls(volumes, life.clock(), failures, facts),
      protection(life.dispatch(), sim.files(), life.random(), sim.log(), platform.attributes, paths),
      failingProtection(protection, failures),
      displayNames(life.dispatch(), sim.files(), life.random(), sim.log(), paths),
      tags(life.dispatch(), sim.files(), life.random(), platform.attributes, paths), mutations(life.dispatch()),
      pins(life.dispatch(), life.random()), queues(life.dispatch()),
      identity(life.dispatch(), platform.processes, platform.propertyLists, sim.files(), life.random(), sim.log(),
               paths, SnapshotIdentity::FileIds::areXids),
      managed{calls, platform.disks, sim.files(), sim.log(), paths, identity, {}}, apfs(managed, "apfs"),
      volumeService(life.dispatch(), platform.disks, calls, platform.processes, platform.propertyLists, paths),
      schedules(life.dispatch(), sim.files(), life.random(), sim.log(), paths),
      settings(life.dispatch(), sim.files(), life.random(), log, paths),
      clocks(life.dispatch(), sim.files(), life.random(), sim.log(), paths), listed(std::move(toldListed)) {
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
      .mountPins = pins,
      .protection = failingProtection,
      .names = displayNames,
      .tags = tags,
      .audit = witness,
      .schedules = schedules,
      .settings = settings,
      .clocks = clocks,
      .notifier = witness,
      .history = nullptr,
      .volumeList =
          [this] {
            listed();
            return volumeService.listVolumes();
          },
      .automaticDeletionBlocked = [this] { return !isTrusted(); },
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

bool Helper::isTrusted() {
  if (schedules.loadFailureDescription() || settings.loadFailureDescription()) return false;
  try {
    protection.ensureLoaded();
    return true;
  } catch (const Error&) {
    return false;
  }
}

Machine::Machine(std::uint64_t seed, Date start, std::string zone)
    : seed_(seed), simulation_({.seed = seed, .start = start, .timeZone = zone}), witness_(simulation_),
      shift_(momentOf(start) - simulation_.clock().monotonic().time_since_epoch().count()) {
  model.zone = std::move(zone);
  facts_.slot = [this](int cadence) { return slotStart(cadence, now1970(), model.zone); };
  witness_.freeSpaceTold = [this] { wakes_.back().isFreeSpace = true; };
  this->start(nullptr);
}

void Machine::start(std::unique_ptr<sim::SimPosix> files) {
  witness_.lastTold.clear();
  helper_ = std::make_unique<Helper>(simulation_, volumes_, std::move(files), failures_, facts_, witness_, [this] {
    wakes_.push_back({now(), false});
  });
  run([&] { helper_->scheduler->start(); });
}

Moment Machine::now() { return simulation_.clock().monotonic().time_since_epoch().count() + shift_; }
std::int64_t Machine::now1970() {
  return static_cast<std::int64_t>(std::floor(secondsOf(now()))) +
         static_cast<std::int64_t>(Date::unixEpochToReference);
}

void Machine::run(FunctionRef<void()> body) { (void)simulation_.run(helper_->life, body); }

void Machine::happened(const std::string& what) {
  story.push_back(stampText(now1970()) + " " + what);
  if (story.size() > storyLength) story.erase(story.begin());
}

void Machine::runUntil(Moment moment) {
  simulation_.runFor(std::chrono::nanoseconds(moment - now()));
  settle();
}

void Machine::sleepUntil(Moment moment) {
  happened("sleeps");
  const Moment span = moment - now();
  simulation_.sleepMachine(std::chrono::nanoseconds(span));
  shift_ += span;
  simulation_.runUntilIdle();
  happened("is awake");
  settle();
}

void Machine::jump(std::int64_t seconds) {
  happened("clock is set by " + std::to_string(seconds) + " s");
  if (seconds < 0) witness_.lastTold.clear();
  shift_ += seconds * second;
  simulation_.jumpWallClock(Seconds(static_cast<double>(seconds)));
  simulation_.runUntilIdle();
  settle();
}

void Machine::travel(const std::string& zone) {
  happened("is now in " + zone);
  simulation_.setTimeZone(zone);
  model.zone = zone;
}

void Machine::add(const Uuid& uuid, const std::string& name, bool isBackup) {
  const std::string bsd = "disk" + std::to_string(model.volumes.size() + 1) + "s1";
  sim::SimVolume volume = sim::makeSimVolume(uuid, name, "/Volumes/" + name, bsd);
  volume.blockSize = blockSize;
  volume.blocks = 100'000'000;
  volume.availableBlocks = 90'000'000;
  if (isBackup) {
    volume.description.role = "Backup";
    volume.description.deviceInternal = false;
  }
  volumes_.add(volume);
  simulation_.runUntilIdle();
  ModelVolume& known = model.volumes[uuid.lower()];
  known.name = name;
  known.isBackup = isBackup;
  known.free = 90'000'000'000;
  settle();
}

void Machine::takeAway(const Uuid& uuid) {
  happened(at(uuid).name + " goes");
  for (sim::SimVolume& volume : volumes_.volumes()) {
    if (volume.uuid == uuid) away_[uuid] = volume;
  }
  away_[uuid].snapshots.clear();
  volumes_.take(uuid);
  at(uuid).isPresent = false;
  for (ModelSnapshot& snapshot : at(uuid).snapshots) snapshot.isMounted = false;
  simulation_.runUntilIdle();
  settle();
}

void Machine::bringBack(const Uuid& uuid) {
  happened(at(uuid).name + " comes");
  volumes_.add(away_.extract(uuid).mapped());
  at(uuid).isPresent = true;
  simulation_.runUntilIdle();
  settle();
}

void Machine::setFree(const Uuid& uuid, std::int64_t bytes) {
  happened(at(uuid).name + " has free " + std::to_string(bytes));
  volumes_.change(
      uuid, [&](sim::SimVolume& volume) { volume.availableBlocks = static_cast<std::uint64_t>(bytes) / blockSize; });
  at(uuid).free = bytes;
}

ModelSnapshot& Machine::at(const Uuid& uuid, const std::string& name) {
  for (ModelSnapshot& snapshot : at(uuid).snapshots) {
    if (snapshot.name == name) return snapshot;
  }
  std::abort();
}

sim::SimSnapshot Machine::simSnapshot(const Uuid& uuid, const std::string& name) {
  for (const sim::SimSnapshot& snapshot : volumes_.snapshots(uuid)) {
    if (snapshot.name == name) return snapshot;
  }
  std::abort();
}

void Machine::put(const Uuid& uuid, const std::string& name, double created, By by) {
  if (!volumes_.addSnapshot(uuid, name, Date::fromReference(created))) return;
  happened("somebody makes " + name + " on " + at(uuid).name);
  at(uuid).snapshots.push_back({.name = name, .created = created, .order = model.nextOrder()});
  if (by == By::stranger) return;
  helper_->scheduler->bumpGeneration(uuid.lower());
  ++at(uuid).generation;
}

void Machine::remove(const Uuid& uuid, const std::string& name) {
  if (!volumes_.removeSnapshot(uuid, name)) return;
  happened("somebody deletes " + name + " on " + at(uuid).name);
  auto& snapshots = at(uuid).snapshots;
  at(uuid).coming += at(uuid, name).bytes;
  std::erase_if(snapshots, [&](const ModelSnapshot& snapshot) { return snapshot.name == name; });
  helper_->scheduler->bumpGeneration(uuid.lower());
  ++at(uuid).generation;
}

void Machine::protect(const Uuid& uuid, const std::string& name, bool isProtected) {
  if (model.protectionDegraded) return;
  happened((isProtected ? "protects " : "no longer protects ") + name + " on " + at(uuid).name);
  const Xid xid = simSnapshot(uuid, name).xid;
  run([&] {
    helper_->protection.setProtected(helper_->apfs.resolveVolume(uuid.upper()), isProtected,
                                     [&] { return std::optional(xid); });
  });
  at(uuid, name).isProtected = isProtected;
  if (isProtected) facts_.isProtected.insert(xid);
  if (!isProtected) facts_.isProtected.erase(xid);
}

void Machine::mount(const Uuid& uuid, const std::string& name, bool isForIndexing) {
  if (at(uuid, name).isMounted) return;
  happened("mounts " + name + " of " + at(uuid).name);
  const Xid xid = simSnapshot(uuid, name).xid;
  VolumeInfo volume;
  run([&] { volume = helper_->apfs.resolveVolume(uuid.upper()); });
  const std::string user = userMountPath(helper_->paths, volume, xid);
  const std::string indexing = helper_->paths.privateMountRoot + "/.index-" +
                               snapshotMountName(volume.name, volume.uuid) + "-" + std::to_string(xid.value);
  at(uuid, name).isMounted = true;
  if (!volumes_.mount(uuid, isForIndexing ? indexing : user, name, mntReadOnly)) std::abort();
  simulation_.runUntilIdle();
  settle();
}

void Machine::unmount(const Uuid& uuid, const std::string& name) {
  const Xid xid = simSnapshot(uuid, name).xid;
  for (const auto& mount : volumes_.mounts()) {
    if (mount.xid != xid) continue;
    happened("unmounts " + name + " of " + at(uuid).name);
    at(uuid, name).isMounted = false;
    if (!volumes_.unmount(mount.directory, true)) std::abort();
  }
  simulation_.runUntilIdle();
  settle();
}

void Machine::setBytes(const Uuid& uuid, const std::string& name, std::int64_t bytes) {
  volumes_.change(uuid, [&](sim::SimVolume& volume) {
    for (sim::SimSnapshot& snapshot : volume.snapshots) {
      if (snapshot.name == name) snapshot.ownBlocks = static_cast<std::uint64_t>(bytes) / blockSize;
    }
  });
  at(uuid, name).bytes = bytes;
}

bool Machine::setPolicy(const Uuid& uuid, ModelPolicy policy, bool isDiskBroken) {
  happened("policy of " + at(uuid).name + (policy.enabled ? " on" : " off") + (isDiskBroken ? " fails" : ""));
  stamp(policy, at(uuid).policy, secondsOf(now()));
  if (isDiskBroken)
    helper_->sim.files().setPlan({.fault = sim::Fault::fail, .atCall = 1, .only = sim::PosixCall::write});
  bool isStored = false;
  run([&] {
    const VolumeUuid volume(uuid.lower());
    std::optional<SchedulePolicy> before;
    if (helper_->schedules.hasPolicy(volume)) before = helper_->schedules.policy(volume);
    try {
      helper_->schedules.setPolicy(volume, policyOf(policy).stamped(before, helper_->life.clock().now()));
      helper_->scheduler->bumpGeneration(uuid.lower());
      isStored = true;
    } catch (const Error&) {
    }
  });
  if (isStored != (!isDiskBroken && !model.schedulesDegraded)) differ("a policy is stored, or isn't");
  if (isDiskBroken) helper_->sim.files().setPlan({});
  if (isDiskBroken) model.schedulesDegraded = true;
  if (!isStored) return false;
  at(uuid).policy = policy;
  ++at(uuid).generation;
  if (policy.protectForeign) facts_.protectForeign.insert(uuid);
  if (!policy.protectForeign) facts_.protectForeign.erase(uuid);
  return true;
}

bool Machine::setSettings(bool automaticDeletion, int safetyHours, bool isDiskBroken) {
  happened("settings: deletion " + std::to_string(automaticDeletion) + ", hours " + std::to_string(safetyHours) +
           (isDiskBroken ? " fail" : ""));
  if (isDiskBroken)
    helper_->sim.files().setPlan({.fault = sim::Fault::fail, .atCall = 1, .only = sim::PosixCall::write});
  bool isStored = false;
  run([&] {
    HelperSettings settings;
    settings.automaticDeletionEnabled = automaticDeletion;
    settings.safetySnapshotRetentionHours = safetyHours;
    try {
      helper_->settings.update(settings);
      isStored = true;
    } catch (const Error&) {
    }
  });
  if (isStored != (!isDiskBroken && !model.settingsDegraded)) differ("settings are stored, or aren't");
  if (isDiskBroken) helper_->sim.files().setPlan({});
  if (isDiskBroken) model.settingsDegraded = true;
  if (!isStored) return false;
  model.automaticDeletion = automaticDeletion;
  model.safetyHours = safetyHours;
  return true;
}

void Machine::restart(const std::set<Store>& unreadable) {
  happened("helper starts anew, stores unreadable: " + std::to_string(unreadable.size()));
  run([&] { helper_->scheduler->stop(); });
  helper_->scheduler.reset();
  helper_->life.end();
  auto files = helper_->sim.files().copyForSuccessor(&simulation_.clock());
  const std::string oldRoot = helper_->sim.files().root();
  helper_.reset();
  const HostPaths paths = sim::hostPathsUnder(files->root());
  // Each process of the simulator's has a root of its own.
  for (const auto& mount : volumes_.mounts()) {
    if (!volumes_.unmount(mount.directory, true)) std::abort();
    const std::string directory = files->root() + mount.directory.substr(oldRoot.size());
    if (!volumes_.mount(mount.volume, directory, mount.snapshot, mount.flags)) std::abort();
  }
  sim::Draws draws(seed_);
  const auto put = [&](Store store, const std::optional<std::string>& text) {
    const std::string path = paths.state(storeFiles[static_cast<int>(store)]);
    if (text) writeAtomically(*files, draws, path, *text, 0600);
    if (!text) (void)files->unlink(path);
  };
  for (const auto& [store, text] : std::exchange(brokenStores_, {})) put(store, text);
  for (const Store store : unreadable) {
    if (store != Store::clocks)
      brokenStores_[store] = readFile(*files, paths.state(storeFiles[static_cast<int>(store)]));
    put(store, "no JSON");
  }
  model.schedulesDegraded = unreadable.contains(Store::schedules);
  model.settingsDegraded = unreadable.contains(Store::settings);
  model.protectionDegraded = unreadable.contains(Store::protection);
  model.restart();
  if (unreadable.contains(Store::clocks)) {
    witness_.seenSince.clear();
    for (auto& [uuid, volume] : model.volumes) {
      volume.firstSeen.reset();
      volume.isNoticeSent = false;
    }
  }
  start(std::move(files));
}

void Machine::fail(const Uuid& uuid, Failing what, bool fails) {
  happened(at(uuid).name + (fails ? " fails in " : " is mended in ") + std::to_string(static_cast<int>(what)));
  const auto set = [&](auto& failing, const auto& subject, bool& known) {
    if (fails) failing.insert(subject);
    if (!fails) failing.erase(subject);
    known = fails;
  };
  if (what == Failing::listing) set(failures_.cannotList, uuid, at(uuid).cannotList);
  if (what == Failing::protection) set(failures_.cannotTellProtected, uuid, at(uuid).cannotTellProtected);
  if (what == Failing::measuring) set(failures_.cannotMeasure, "/Volumes/" + at(uuid).name, at(uuid).cannotMeasure);
}

void Machine::failCreation(int cadence, bool fails) {
  happened(std::string(cadenceWords[cadence]) + (fails ? " can't be made" : " can be made"));
  failures_.cannotCreate.at(static_cast<std::size_t>(cadence)) = fails;
  model.cannotCreate.at(static_cast<std::size_t>(cadence)) = fails;
}

void Machine::failDeletion(bool fails) {
  happened(fails ? "nothing can be deleted" : "things can be deleted");
  failures_.cannotDelete = fails;
  model.cannotDelete = fails;
}

bool Machine::isBusy() {
  return std::any_of(model.volumes.begin(), model.volumes.end(),
                     [&](const auto& entry) { return entry.second.busyUntil > now(); });
}

void Machine::tellModel() {
  for (const Wake& wake : std::exchange(wakes_, {})) {
    if (wake.isFreeSpace) {
      ++freeSpaceWakes;
      model.freeSpace(wake.at);
      continue;
    }
    ++minuteWakes;
    for (const auto& [uuid, volume] : model.volumes) {
      if (volume.isPresent) witness_.seenSince.emplace(uuid, secondsOf(wake.at));
    }
    model.minute(wake.at);
  }
}

void Machine::settle() {
  tellModel();
  if (!isBusy()) compare();
}

void Machine::compare() {
  for (auto& broken : {&witness_.broken, &helper_->calls.broken}) {
    if (!broken->empty()) differ(broken->front());
  }
  bool didSomething = false;
  for (const auto& [uuid, volume] : model.volumes) {
    auto& acts = model.acts[uuid];
    didSomething = didSomething || !acts.empty();
    compare(uuid, "did", witness_.told.acts[uuid], acts);
    compare(uuid, "told", witness_.told.events[uuid], model.events[uuid]);
    compare(uuid, "warned", witness_.told.warnings[uuid], model.warnings[uuid]);
  }
  if (didSomething || ++settled_ % 64 == 0) compareSnapshots();
}

void Machine::compare(const std::string& uuid, const char* what, std::deque<std::string>& told,
                      std::deque<std::string>& expected) {
  const std::string on = " on " + model.volumes.at(uuid).name + ": ";
  while (!told.empty() || !expected.empty()) {
    if (expected.empty()) differ("the helper " + (what + on) + told.front() + "; nothing was due");
    if (told.empty()) differ(expected.front() + " was due" + on + "the helper " + what + " nothing");
    if (!matches(told.front(), expected.front())) {
      differ("the helper " + (what + on) + told.front() + "; due was " + expected.front());
    }
    happened(told.front());
    told.pop_front();
    expected.pop_front();
  }
}

void Machine::compareSnapshots() {
  for (const auto& [uuid, volume] : model.volumes) {
    if (!volume.isPresent) continue;
    const auto found = volumes_.snapshots(*Uuid::parse(uuid));
    const bool isSame = std::equal(
        found.begin(), found.end(), volume.snapshots.begin(), volume.snapshots.end(), [](const auto& a, const auto& b) {
          const double created =
              static_cast<double>(a.createdSeconds) + static_cast<double>(a.createdNanoseconds) * 1e-9;
          return a.name == b.name && std::abs(created - Date::unixEpochToReference - b.created) < 1e-3;
        });
    if (!isSame) differ("other snapshots on " + volume.name);
  }
}

void Machine::differ(const std::string& what) {
  std::string text = what + "\nat " + stampText(now1970()) + " in " + model.zone + "\nbefore that:";
  for (const std::string& line : story) text += "\n  " + line;
  const auto& log = helper_->sim.log().entries();
  text += "\nits log ends:";
  for (std::size_t i = log.size() - std::min<std::size_t>(log.size(), 5); i < log.size(); ++i) {
    text += "\n  " + log.at(i).message;
  }
  throw Difference(text);
}

}  // namespace quillmark::months
