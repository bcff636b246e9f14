#include "SimulatedMonthsMachine.h"

#include <cmath>

#include "base/Text.h"
#include "platform/sim/Draws.h"
#include "snapshots/MountNames.h"

namespace quillmark::months {
namespace {

constexpr std::uint64_t blockSize = 1000;
constexpr std::size_t storyLength = 25;
// By then it has been told at the latest that the helper is degraded, or well again.
constexpr Moment longestUntold = 6 * 60 * second;

const char* fileOf(Store store) {
  constexpr const char* files[] = {
      "schedules.json",           "settings.json",       "protected.json",    "volume-clocks.json",
      "notifications-state.json", "snapshot-names.json", "snapshot-tags.json"};
  return files[static_cast<std::size_t>(store)];
}

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

// Stars in what is expected stand for anything.
bool matches(std::string_view told, std::string_view expected) {
  const auto star = expected.find('*');
  if (star == std::string_view::npos) return told == expected;
  if (!told.starts_with(expected.substr(0, star))) return false;
  told.remove_prefix(star);
  expected.remove_prefix(star + 1);
  while (!matches(told, expected)) {
    if (told.empty()) return false;
    told.remove_prefix(1);
  }
  return true;
}

}  // namespace

Machine::Machine(std::uint64_t seed, Date start, std::string zone)
    : seed_(seed), simulation_({.seed = seed, .start = start, .timeZone = zone}), witness_(failures_),
      shift_(momentOf(start) - simulation_.clock().monotonic().time_since_epoch().count()) {
  model.zone = std::move(zone);
  witness_.freeSpaceTold = [this] { wakes_.back().isFreeSpace = true; };
  this->start(nullptr);
}

void Machine::start(std::unique_ptr<sim::SimPosix> files) {
  helper_ = std::make_unique<Helper>(simulation_, volumes_, std::move(files), failures_, facts_, witness_, [this] {
    wakes_.push_back({now(), false});
  });
  run([&] { helper_->scheduler->start(); });
  healthAgreed_ = now() - shift_;
  if (model.isDegraded()) troubleSince_ = now();
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
  // As any disk does; what never gets there is kept, and grows, for a power cut that never comes.
  if (++runs_ % 60 == 0) helper_->sim.files().syncEverything();
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
  shift_ += seconds * second;
  jumped_ += seconds * second;
  troubleSince_.reset();
  healthAgreed_ = now() - shift_;
  for (auto& [uuid, volume] : model.volumes) volume.busyUntil = 0;
  simulation_.jumpWallClock(Seconds(static_cast<double>(seconds)));
  simulation_.runUntilIdle();
  settle();
}

void Machine::travel(const std::string& zone) {
  happened("is now in " + zone);
  simulation_.setTimeZone(zone);
  model.zone = zone;
}

void Machine::add(const Uuid& uuid, const std::string& name, bool isBackup, Attributes attributes) {
  if (attributes == Attributes::refused) {
    failures_.refusesAttributes.insert(uuid);
    helper_->sim.attributes().refuseChanges(uuid, EROFS);
  }
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
  differ(at(uuid).name + " has no " + name);
}

sim::SimSnapshot Machine::simSnapshot(const Uuid& uuid, const std::string& name) {
  for (const sim::SimSnapshot& snapshot : volumes_.snapshots(uuid)) {
    if (snapshot.name == name) return snapshot;
  }
  differ(at(uuid).name + " has no " + name);
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
  if (model.protection != Model::Trouble::none) return;
  happened((isProtected ? "protects " : "no longer protects ") + name + " on " + at(uuid).name);
  const Xid xid = simSnapshot(uuid, name).xid;
  const bool isInFile = failures_.refusesAttributes.contains(uuid);
  const bool isStored = store(Store::protection, model.protection, isInFile && failsWrites(Store::protection), [&] {
    helper_->parts.protection.setProtected(helper_->parts.apfs.resolveVolume(uuid.upper()), isProtected,
                                           [&] { return std::optional(xid); });
  });
  if (!isStored) return;
  at(uuid, name).isProtected = isProtected;
  if (isProtected) facts_.isProtected.insert(xid);
  if (!isProtected) facts_.isProtected.erase(xid);
}

void Machine::label(const Uuid& uuid, const std::string& name, const std::string& text) {
  happened("labels " + name + " on " + at(uuid).name);
  const auto isBroken = [&](Store store) { return failsWrites(store) || broken_.contains(store); };
  std::optional<Error> failure;
  bool isTagged = false;
  run([&] {
    const VolumeInfo volume = helper_->parts.apfs.resolveVolume(uuid.upper());
    failure = helper_->parts.displayNames.setDisplayName(volume.key(), name, text);
    try {
      helper_->parts.tags.setTag(volume, text, [&] { return std::optional(simSnapshot(uuid, name).xid); });
      isTagged = true;
    } catch (const Error&) {
    }
  });
  if (failure.has_value() != isBroken(Store::names)) differ("a name is kept, or isn't");
  if (!isTagged && !isBroken(Store::tags)) differ("a tag isn't kept");
}

bool Machine::store(Store which, Model::Trouble& state, bool isDiskBroken, FunctionRef<void()> work) {
  const bool wasTrusted = state == Model::Trouble::none;
  const bool failed = failsWrites(which);
  if (isDiskBroken) failures_.cannotWrite.insert(fileOf(which));
  std::optional<Error> refused;
  run([&] {
    try {
      work();
    } catch (const Error& error) {
      refused = error;
    }
  });
  if (!failed) failures_.cannotWrite.erase(fileOf(which));
  if (refused.has_value() != (isDiskBroken || !wasTrusted))
    differ(std::string(fileOf(which)) + " is written, or isn't");
  const bool saysWhy =
      !refused || wasTrusted || which == Store::protection ||
      refused->description().find(" storage is degraded and cannot be overwritten: ") != std::string::npos;
  if (!saysWhy) differ("refused with " + refused->description());
  if (refused && wasTrusted) trouble(state, Model::Trouble::unwritten);
  return !refused;
}

void Machine::trouble(Model::Trouble& store, Model::Trouble what) {
  ++model.reached["a store failed in the middle"];
  if (!model.isDegraded()) troubleSince_ = now();
  store = what;
}

void Machine::mount(const Uuid& uuid, const std::string& name, bool isForIndexing) {
  if (at(uuid, name).isMounted) return;
  happened("mounts " + name + " of " + at(uuid).name);
  const Xid xid = simSnapshot(uuid, name).xid;
  VolumeInfo volume;
  run([&] { volume = helper_->parts.apfs.resolveVolume(uuid.upper()); });
  const std::string user = userMountPath(helper_->paths, volume, xid);
  const std::string indexing = helper_->paths.privateMountRoot + "/.index-" +
                               snapshotMountName(volume.name, volume.uuid) + "-" + std::to_string(xid.value);
  at(uuid, name).isMounted = true;
  if (!volumes_.mount(uuid, isForIndexing ? indexing : user, name, mntReadOnly)) differ("can't mount " + name);
  simulation_.runUntilIdle();
  settle();
}

void Machine::unmount(const Uuid& uuid, const std::string& name) {
  const Xid xid = simSnapshot(uuid, name).xid;
  for (const auto& mount : volumes_.mounts()) {
    if (mount.xid != xid) continue;
    happened("unmounts " + name + " of " + at(uuid).name);
    at(uuid, name).isMounted = false;
    if (!volumes_.unmount(mount.directory, true)) differ("can't unmount " + mount.directory);
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
  const bool isStored = store(Store::schedules, model.schedules, isDiskBroken, [&] {
    helper_->parts.schedules.stampAndSetPolicy(VolumeUuid(uuid.lower()), policyOf(policy), helper_->life.clock().now());
    helper_->scheduler->bumpGeneration(uuid.lower());
  });
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
  const bool isStored = store(Store::settings, model.settings, isDiskBroken, [&] {
    HelperSettings settings;
    settings.automaticDeletionEnabled = automaticDeletion;
    settings.safetySnapshotRetentionHours = safetyHours;
    helper_->parts.settings.update(settings);
  });
  if (!isStored) return false;
  model.automaticDeletion = automaticDeletion;
  model.safetyHours = safetyHours;
  return true;
}

void Machine::restart(const std::map<Store, Broken>& broken) {
  std::string which;
  for (const auto& [store, how] : broken) which += std::string(" ") + fileOf(store);
  happened("helper starts anew, broken:" + which);
  run([&] { helper_->scheduler->stop(); });
  helper_->scheduler.reset();
  helper_->life.end();
  auto files = helper_->sim.files().copyForSuccessor(&simulation_.clock());
  const std::string oldRoot = helper_->sim.files().root();
  helper_.reset();
  // Each process of the simulator's has a root of its own.
  for (const auto& mount : volumes_.mounts()) {
    if (!volumes_.unmount(mount.directory, true)) differ("can't unmount " + mount.directory);
    const std::string directory = files->root() + mount.directory.substr(oldRoot.size());
    if (!volumes_.mount(mount.volume, directory, mount.snapshot, mount.flags)) differ("can't mount " + directory);
  }
  breakStores(*files, broken);
  const auto troubleOf = [&](Store store) {
    return broken.contains(store) ? Model::Trouble::unreadable : Model::Trouble::none;
  };
  model.schedules = troubleOf(Store::schedules);
  model.settings = troubleOf(Store::settings);
  model.protection = troubleOf(Store::protection);
  restartModel(broken);
  start(std::move(files));
}

void Machine::breakStores(sim::SimPosix& files, const std::map<Store, Broken>& broken) {
  const HostPaths paths = sim::hostPathsUnder(files.root());
  sim::Draws draws(seed_);
  const auto put = [&](Store store, const std::optional<std::string>& text) {
    const std::string path = paths.state(fileOf(store));
    if (text) writeAtomically(files, draws, path, *text, 0600);
    if (!text) (void)files.unlink(path);
  };
  for (const auto& [store, text] : std::exchange(garbled_, {})) put(store, text);
  broken_.clear();
  failures_.cannotRead.clear();
  for (const auto& [store, how] : broken) {
    ++model.reached["a store was broken at the start"];
    broken_.insert(store);
    if (how == Broken::unreadable && files.lstat(paths.state(fileOf(store)))) {
      failures_.cannotRead.insert(fileOf(store));
      continue;
    }
    // Some are written again as if they had been empty.
    const bool isReplaced = store == Store::clocks || store == Store::notices;
    if (!isReplaced) garbled_[store] = readFile(files, paths.state(fileOf(store)));
    put(store, "no JSON");
  }
}

void Machine::restartModel(const std::map<Store, Broken>& broken) {
  const auto clocks = model.clocksOnDisk;
  const auto posted = model.postedOnDisk;
  if (broken.contains(Store::clocks)) model.clocksOnDisk.clear();
  if (broken.contains(Store::notices)) model.postedOnDisk.clear();
  model.restart();
  if (failures_.cannotRead.contains(fileOf(Store::clocks))) model.clocksOnDisk = clocks;
  if (failures_.cannotRead.contains(fileOf(Store::notices))) model.postedOnDisk = posted;
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

void Machine::failAudit(bool fails) {
  happened(fails ? "nothing can be recorded" : "things can be recorded");
  failures_.cannotAudit = fails;
}

void Machine::failWrites(Store store, bool fails) {
  happened(std::string(fileOf(store)) + (fails ? " can't be written" : " can be written"));
  if (fails) failures_.cannotWrite.insert(fileOf(store));
  if (!fails) failures_.cannotWrite.erase(fileOf(store));
  if (store == Store::clocks) model.cannotSaveClocks = fails;
  if (store == Store::notices) model.cannotSaveNotices = fails;
}

bool Machine::failsWrites(Store store) const { return failures_.cannotWrite.contains(fileOf(store)); }

void Machine::askHealth() {
  HelperHealthStatus status;
  run([&] { status = helper_->health.evaluate(); });
  std::string problem;
  const std::pair<const char*, const HelperSubsystemHealth*> stores[] = {
      {"schedules: ", &status.schedules}, {"settings: ", &status.settings}, {"protection: ", &status.protection}};
  for (const auto& [name, health] : stores) {
    if (health->state == HelperSubsystemState::healthy) continue;
    if (health->state != HelperSubsystemState::unavailable) differ(std::string(name) + "is neither well nor away");
    problem += (problem.empty() ? "" : "; ") + (name + health->detail.value_or(""));
  }
  if (!matches(problem, model.problem())) differ("health says " + problem + "; it is " + model.problem());
  settle();
}

void Machine::watchHealth() {
  const Moment awake = now() - shift_;
  if (model.isDegraded() == model.isHealthTold()) healthAgreed_ = awake;
  if (awake - healthAgreed_ > longestUntold) {
    differ(model.isDegraded() ? "nobody was told that the helper is degraded"
                              : "nobody was told that it is well again");
  }
}

void Machine::hearOfHealth(const std::string& notice) {
  happened(notice);
  const bool isTrouble = notice.starts_with("Quillmark helper is degraded: ");
  const std::string expected = isTrouble ? "Quillmark helper is degraded: " + model.problem() +
                                               ". Automatic snapshot deletion is paused until helper health recovers. "
                                               "Reference: *."
                                         : "Quillmark helper recovered: The background service started healthy.";
  if (!matches(notice, expected)) differ("people were told: " + notice);
  if (isTrouble != model.isDegraded()) differ("told of a health that it doesn't have");
  if (isTrouble == model.isHealthTold()) differ("told twice of its health");
  if (isTrouble && troubleSince_ && now() - *troubleSince_ < 120 * second) differ("told too soon of its health");
  ++model.reached[isTrouble ? "told that it is degraded" : "told that it is well again"];
  model.healthTold(now(), isTrouble);
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
    model.minute(wake.at);
  }
}

void Machine::settle() {
  // Before what warnings bring: what is saved with them forgets a health that was told a week ago.
  auto& notices = witness_.told.notices[""];
  for (; !notices.empty(); notices.pop_front()) hearOfHealth(notices.front());
  tellModel();
  if (!isBusy()) compare();
}

void Machine::compare() {
  for (auto& broken : {&witness_.broken, &helper_->calls.broken}) {
    if (!broken->empty()) differ(broken->front());
  }
  watchHealth();
  bool didSomething = false;
  for (const auto& [uuid, volume] : model.volumes) {
    auto& acts = model.acts[uuid];
    didSomething = didSomething || !acts.empty();
    compare(uuid, "did", witness_.told.acts[uuid], acts);
    compare(uuid, "told", witness_.told.events[uuid], model.events[uuid]);
    compare(uuid, "told people", witness_.told.notices[uuid], model.notices[uuid]);
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
  if (!helper_) throw Difference(text);
  const auto& log = helper_->sim.log().entries();
  text += "\nits log ends:";
  for (std::size_t i = log.size() - std::min<std::size_t>(log.size(), 5); i < log.size(); ++i) {
    text += "\n  " + log.at(i).message;
  }
  throw Difference(text);
}

}  // namespace quillmark::months
