#include "SimulatedMonthsModel.h"

#include <algorithm>
#include <cmath>
#include <tuple>
#include <utility>

namespace quillmark::months {
namespace {

const std::string prefix = "com.harrowfern.Quillmark.";
constexpr std::string_view automatic = "com.harrowfern.Quillmark.auto.";
constexpr double referenceTo1970 = 978'307'200;
constexpr double lifespans[cadences] = {3600, 86400, 604800, 2592000, 31536000};
constexpr double never = 1e18;

bool isOwned(const std::string& name) { return name.starts_with(prefix); }
std::int64_t margin(std::int64_t threshold) { return threshold / 10; }
// Thresholds are whole ones.
std::string gigabytes(std::int64_t bytes) { return std::to_string(bytes / 1'000'000'000) + " GB"; }
std::string counted(std::ptrdiff_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

bool isOlder(const ModelSnapshot* a, const ModelSnapshot* b) {
  return std::tie(a->created, a->order) < std::tie(b->created, b->order);
}

// The unprotected automatic ones of a cadence, newest first.
std::vector<const ModelSnapshot*> countedOf(const ModelVolume& volume, int cadence) {
  std::vector<const ModelSnapshot*> counted;
  for (const ModelSnapshot& snapshot : volume.snapshots) {
    if (cadenceOf(snapshot.name) == cadence && !snapshot.isProtected) counted.push_back(&snapshot);
  }
  std::sort(counted.begin(), counted.end(), [](const auto* a, const auto* b) { return isOlder(b, a); });
  return counted;
}

std::vector<std::string> namesOf(const std::vector<const ModelSnapshot*>& snapshots) {
  std::vector<std::string> names;
  for (const ModelSnapshot* snapshot : snapshots) names.push_back(snapshot->name);
  return names;
}

auto withName(ModelVolume& volume, const std::string& name) {
  return std::find_if(volume.snapshots.begin(), volume.snapshots.end(),
                      [&](const ModelSnapshot& snapshot) { return snapshot.name == name; });
}

std::ptrdiff_t countOf(const ModelVolume& volume, bool (*counts)(const std::string&)) {
  return std::count_if(volume.snapshots.begin(), volume.snapshots.end(),
                       [&](const ModelSnapshot& snapshot) { return counts(snapshot.name); });
}
bool isNotSystem(const std::string& name) { return kindOf(name) != NameKind::system; }

}  // namespace

int cadenceOf(const std::string& name) {
  std::string_view rest = name;
  if (!rest.starts_with(automatic)) return -1;
  rest.remove_prefix(automatic.size());
  for (int cadence = 0; cadence < cadences; ++cadence) {
    const std::string_view word = cadenceWords[cadence];
    if (rest.starts_with(word) && rest.substr(word.size()).starts_with('.')) return cadence;
  }
  return -1;
}

NameKind kindOf(const std::string& name) {
  if (name.starts_with("com.apple.os")) return NameKind::system;
  if (!isOwned(name)) return NameKind::foreign;
  if (cadenceOf(name) >= 0) return NameKind::automatic;
  return name.starts_with(prefix + "safety") ? NameKind::safety : NameKind::manual;
}

bool Model::gateIsOpen() const { return automaticDeletion && !isDegraded(); }

std::string Model::problem() const {
  std::string text;
  const auto add = [&](Trouble trouble, const char* unreadable, const char* unwritten) {
    if (trouble == Trouble::none) return;
    if (!text.empty()) text += "; ";
    text += trouble == Trouble::unreadable ? unreadable : unwritten;
  };
  add(schedules, "schedules: * failed: *", "schedules: write failed: *");
  add(settings, "settings: *", "settings: write failed: *");
  add(protection, "protection: Protection store exists but is unreadable: *",
      "protection: Protection store write failed: *");
  return text;
}

bool Model::isScheduled(const ModelVolume& volume) const {
  return volume.isPresent && !volume.isBackup && !(volume.policy && !volume.policy->isTracked);
}

void Model::restart() {
  ticks_ = 0;
  lastTold_.clear();
  for (auto& [uuid, volume] : volumes) {
    volume.attempts = {};
    volume.generation = 0;
    volume.rotated.reset();
    volume.measured.reset();
    volume.busyUntil = 0;
    const auto clock = clocksOnDisk.find(uuid);
    volume.firstSeen.reset();
    volume.isNoticeSent = false;
    if (clock == clocksOnDisk.end()) continue;
    volume.firstSeen = clock->second.firstSeen;
    volume.isNoticeSent = clock->second.isNoticeSent;
  }
  posted_ = postedOnDisk;
}

void Model::saveClocks() {
  if (cannotSaveClocks) {
    ++reached["clocks not saved"];
    return;
  }
  clocksOnDisk.clear();
  for (const auto& [uuid, volume] : volumes) {
    if (volume.firstSeen) clocksOnDisk.insert({uuid, {*volume.firstSeen, volume.isNoticeSent}});
  }
}

void Model::savePosted(double now) {
  std::erase_if(posted_, [now](const auto& entry) { return now - entry.second > 604800; });
  if (cannotSaveNotices) {
    ++reached["notices not saved"];
    return;
  }
  postedOnDisk = posted_;
  for (auto& [key, date] : postedOnDisk) date = std::floor(date);
}

void Model::healthTold(Moment now, bool isTrouble) {
  if (isTrouble) posted_[healthKey] = secondsOf(now);
  if (!isTrouble) posted_.erase(healthKey);
  savePosted(secondsOf(now));
}

void Model::minute(Moment now) {
  ++ticks_;
  if (schedules != Trouble::none) return;
  for (auto& [uuid, volume] : volumes) {
    if (!volume.isPresent || volume.firstSeen) continue;
    volume.firstSeen = secondsOf(now);
    saveClocks();
  }
  if (ticks_ % 5 == 1) {
    for (auto& entry : volumes) {
      if (isScheduled(entry.second)) sweep(queued(entry, now));
    }
  }
  for (auto& entry : volumes) {
    if (isScheduled(entry.second) && entry.second.policy) pass(queued(entry, now));
  }
}

Model::Pass Model::queued(Volumes::value_type& entry, Moment now) {
  return {entry.first, entry.second, std::max(now, entry.second.busyUntil), now};
}

void Model::pass(Pass pass) {
  ModelVolume& volume = pass.volume;
  if (volume.cannotList) {
    ++reached["pass without a listing"];
    return;
  }
  const auto now1970 = static_cast<std::int64_t>(std::floor(secondsOf(pass.queuedAt) + referenceTo1970));
  std::array<std::optional<double>, cadences> last{};
  for (const ModelSnapshot& snapshot : volume.snapshots) {
    const int cadence = cadenceOf(snapshot.name);
    if (cadence < 0) continue;
    auto& newest = last.at(static_cast<std::size_t>(cadence));
    newest = std::max(newest.value_or(snapshot.created), snapshot.created);
  }
  for (std::size_t cadence = 0; cadence < cadences && volume.policy->enabled; ++cadence) {
    if (!volume.policy->on.at(cadence)) continue;
    const std::int64_t occurrence = slotStart(static_cast<int>(cadence), now1970, zone);
    const double start = static_cast<double>(occurrence) - referenceTo1970;
    if (secondsOf(pass.queuedAt) < start || (last.at(cadence) && *last.at(cadence) >= start)) continue;
    const auto& attempt = volume.attempts.at(cadence);
    // A firing may come two seconds early: a retry is due at the firing of its minute.
    const bool mustWait =
        attempt && attempt->occurrence == occurrence && secondsOf(pass.queuedAt) + 2 < attempt->notBefore;
    if (!mustWait) take(pass, static_cast<int>(cadence), occurrence);
  }
  if (volume.rotated == volume.generation) return;
  if (rotate(pass)) volume.rotated = volume.generation;
}

void Model::take(Pass pass, int cadence, std::int64_t occurrence) {
  ModelVolume& volume = pass.volume;
  const std::string word = cadenceWords[cadence];
  auto& attempt = volume.attempts.at(static_cast<std::size_t>(cadence));
  if (volume.policy->pruneOnLowSpace && measure(volume) && *volume.measured < volume.policy->lowSpaceBytes) {
    ++reached["skipped for lack of space"];
    attempt = {occurrence, never};
    tell(pass, "skipped_low_space", word, 21600);
    return act(pass, "create failed [] scheduled " + word + " skipped (low space)");
  }
  const double now1970 = secondsOf(pass.now) + referenceTo1970;
  const bool isCatchUp = now1970 - static_cast<double>(occurrence) > 300;
  const auto name = create(pass, cadence, isCatchUp ? static_cast<std::int64_t>(std::floor(now1970)) : occurrence);
  if (!name) {
    ++reached["creation failed"];
    attempt = {occurrence, secondsOf(pass.now) + 600};
    if (tell(pass, "create_failed", word, 3600)) {
      notify(pass, "Quillmark snapshot failed: Failed to create " + word + " snapshot: *");
    }
    return act(pass, "create failed [] scheduled " + word + " failed");
  }
  ++reached[isCatchUp ? "caught up" : "taken in time"];
  attempt.reset();
  const std::string detail = " scheduled " + word + (isCatchUp ? " (catch-up for missed *" : "");
  act(pass, "create done [" + *name + "]" + detail);
}

std::optional<std::string> Model::create(Pass pass, int cadence, std::int64_t stamp) {
  if (cannotCreate.at(static_cast<std::size_t>(cadence))) return std::nullopt;
  std::string name = prefix + "auto." + cadenceWords[cadence] + "." + stampText(stamp);
  const std::string first = name;
  for (int i = 2; withName(pass.volume, name) != pass.volume.snapshots.end(); ++i) {
    if (i > 8) return std::nullopt;
    name = first + ".-" + std::to_string(i);
  }
  pass.volume.snapshots.push_back({.name = name, .created = secondsOf(pass.now), .order = ++created_});
  ++pass.volume.generation;
  return name;
}

bool Model::rotate(Pass pass) {
  ModelVolume& volume = pass.volume;
  if (!gateIsOpen()) {
    ++reached["gate closed"];
    return true;
  }
  if (volume.cannotList || volume.cannotTellProtected) return false;
  std::vector<const ModelSnapshot*> candidates;
  for (std::size_t cadence = 0; cadence < cadences && volume.policy->enabled; ++cadence) {
    if (!volume.policy->on.at(cadence)) continue;
    const auto counted = countedOf(volume, static_cast<int>(cadence));
    const auto keep = static_cast<std::size_t>(volume.policy->keep.at(cadence));
    for (std::size_t i = keep; i < counted.size(); ++i) candidates.push_back(counted.at(i));
  }
  std::sort(candidates.begin(), candidates.end(), isOlder);
  bool succeeded = true;
  for (const std::string& name : namesOf(candidates)) {
    if (withName(volume, name)->isMounted) {
      ++reached["rotation passed over a mounted one"];
      succeeded = false;
      continue;
    }
    const std::string word = cadenceWords[cadenceOf(name)];
    if (remove(pass, name, "Pruned by count rotation: the schedule keeps only the newest " + word + " *")) {
      ++reached["rotated"];
    } else {
      succeeded = false;
    }
  }
  checkCeiling(pass);
  return succeeded;
}

void Model::checkCeiling(Pass pass) {
  if (countOf(pass.volume, isOwned) <= 64) return;
  ++reached["over the ceiling"];
  tell(pass, "soft_ceiling_exceeded", "", 86400);
}

std::optional<double> Model::expiry(const ModelVolume& volume, const ModelSnapshot& snapshot) const {
  if (snapshot.isProtected || !isOwned(snapshot.name)) return std::nullopt;
  const double grace = volume.firstSeen ? *volume.firstSeen + 86400 : -never;
  const double start = std::max(snapshot.created, volume.firstSeen.value_or(-never));
  if (kindOf(snapshot.name) == NameKind::safety) {
    return std::max(start + safetyHours * 3600.0, grace);
  }
  if (kindOf(snapshot.name) != NameKind::automatic) return std::nullopt;
  const auto cadence = static_cast<std::size_t>(cadenceOf(snapshot.name));
  std::optional<double> stopped;
  if (volume.policy) {
    if (volume.policy->enabled && volume.policy->on.at(cadence)) return std::nullopt;
    stopped = volume.policy->enabled ? volume.policy->cadenceDisabledAt.at(cadence) : volume.policy->disabledAt;
  }
  return std::max(std::max(start, stopped.value_or(-never)) + lifespans[cadence], grace);
}

void Model::sweep(Pass pass) {
  ModelVolume& volume = pass.volume;
  if (volume.cannotList) return;
  if (volume.cannotTellProtected || protection != Trouble::none) {
    ++reached["sweep without protection"];
    return;
  }
  discover(pass);
  std::vector<std::tuple<double, std::uint64_t, std::string>> expired;
  for (const ModelSnapshot& snapshot : volume.snapshots) {
    const auto end = expiry(volume, snapshot);
    if (end && *end <= secondsOf(pass.now)) expired.emplace_back(*end, snapshot.order, snapshot.name);
  }
  std::sort(expired.begin(), expired.end());
  auto remaining = countOf(volume, isNotSystem);
  int deleted = 0, deletedAutomatic = 0;
  for (const auto& [end, order, name] : expired) {
    if (deleted == 8 || remaining < 2) {
      ++reached[deleted == 8 ? "swept the most" : "swept down to the last"];
      break;
    }
    if (withName(volume, name)->isMounted) continue;
    const bool isSafety = kindOf(name) == NameKind::safety;
    const std::string reason = isSafety ? "Expired safety snapshot: its " + std::to_string(safetyHours) + "h TTL *"
                                        : "Expired automatic snapshot: *";
    if (!remove(pass, name, reason)) break;
    ++reached[isSafety ? "swept a safety snapshot" : "swept an automatic one"];
    ++deleted;
    --remaining;
    deletedAutomatic += isSafety ? 0 : 1;
  }
  if (deletedAutomatic > 0 && tell(pass, "prune_completed", "", 21600)) {
    notify(pass,
           "Quillmark pruned snapshots: Quillmark removed " + counted(deletedAutomatic, "automatic snapshot") + " on " +
               volume.name +
               " whose natural lifespan ended (their schedule no longer rotates them). Protect a snapshot to keep "
               "it indefinitely.");
  }
}

void Model::discover(Pass pass) {
  ModelVolume& volume = pass.volume;
  if (!volume.firstSeen || volume.isNoticeSent) return;
  volume.isNoticeSent = true;
  saveClocks();
  const auto found =
      std::count_if(volume.snapshots.begin(), volume.snapshots.end(), [&](const ModelSnapshot& snapshot) {
        return isOwned(snapshot.name) && snapshot.created < *volume.firstSeen - 60;
      });
  if (found == 0) return;
  ++reached["discovered"];
  events[pass.uuid].push_back("snapshots_discovered()");
  notify(pass, "Existing snapshots found: Found " + counted(found, "existing Quillmark snapshot") + " on " +
                   volume.name +
                   " (from another Mac or a previous install). They now follow their standard lifespans, so protect "
                   "any you want to keep. Nothing is deleted within 24 hours of discovery.");
}

bool Model::measure(ModelVolume& volume) const {
  if (!volume.isPresent || volume.cannotMeasure) return false;
  volume.measured = volume.free;
  const bool isKnown = volume.policy && schedules != Trouble::unreadable;
  volume.thresholdThen = isKnown ? volume.policy->lowSpaceBytes : 30'000'000'000;
  return true;
}

void Model::freeSpace(Moment now) {
  for (auto& [uuid, volume] : volumes) {
    if (volume.busyUntil <= now) volume.freeBefore.clear();
    const auto then = volume.freeBefore.upper_bound(now);
    if (!measure(volume) || then == volume.freeBefore.end()) continue;
    ++reached["measured while a pass waits"];
    volume.measured = then->second;
  }
  for (auto& entry : volumes) {
    auto& [uuid, volume] = entry;
    const bool isEligible = gateIsOpen() && volume.policy && volume.policy->pruneOnLowSpace && volume.policy->isTracked;
    if (volume.isPresent && volume.measured) warn(uuid, volume, isEligible, now);
    if (isEligible) lowSpace(queued(entry, now));
  }
}

void Model::warn(const std::string& uuid, ModelVolume& volume, bool isEligible, Moment moment) {
  const std::string key = "lowSpaceEarly:" + uuid;
  const std::int64_t threshold = volume.thresholdThen;
  const std::int64_t above = *volume.measured - threshold;
  const double now = secondsOf(moment);
  if (isEligible && above >= 0 && above < margin(threshold)) {
    const auto last = posted_.find(key);
    if (last != posted_.end() && now >= last->second && now - last->second < 21600) return;
    ++reached["warned early"];
    posted_[key] = now;
    savePosted(now);
    warnings[uuid].push_back("Free space getting low: " + volume.name + " has * free, close to its " +
                             gigabytes(threshold) +
                             " low-space threshold. Low-space pruning is on for this volume, so Quillmark will start "
                             "removing old snapshots below it. Review or protect what you want to keep.");
  } else if ((!isEligible || above >= 2 * margin(threshold)) && posted_.erase(key) > 0) {
    ++reached["warning over"];
    savePosted(now);
    warnings[uuid].push_back("Free space recovered: " + volume.name +
                             " is comfortably above its low-space threshold again.");
  }
}

void Model::lowSpace(Pass pass) {
  ModelVolume& volume = pass.volume;
  if (!volume.isPresent || volume.isBackup || !measure(volume)) return;
  const std::int64_t threshold = volume.policy->lowSpaceBytes;
  if (*volume.measured >= threshold) return;
  std::array<int, 3> deleted{};
  bool failed = false;
  for (int i = 0; i < 4; ++i) {
    const auto name = lowSpaceCandidate(pass);
    if (!name) break;
    const NameKind kind = kindOf(*name);
    failed = !remove(pass, *name, "Pruned because volume free space (*");
    if (failed) break;
    ++reached["pruned for space"];
    ++deleted.at(kind == NameKind::foreign ? 2 : kind == NameKind::manual ? 1 : 0);
    if (awaitSpace(pass)) break;
  }
  if (deleted != std::array<int, 3>{}) return reportPruned(pass, deleted);
  if (*volume.measured < volume.thresholdThen) reportNothing(pass, failed);
}

void Model::reportPruned(Pass pass, const std::array<int, 3>& deleted) {
  constexpr const char* kinds[] = {" automatic", " manual", " third-party"};
  std::string breakdown;
  for (std::size_t i = 0; i < deleted.size(); ++i) {
    if (deleted.at(i) > 0) breakdown += (breakdown.empty() ? "" : ", ") + std::to_string(deleted.at(i)) + kinds[i];
  }
  events[pass.uuid].push_back("prune_completed()");
  notify(pass, "Quillmark pruned snapshots: Quillmark pruned " +
                   counted(deleted[0] + deleted[1] + deleted[2], "snapshot") + " on " + pass.volume.name + " (" +
                   breakdown +
                   "). Reason: low free space (recovered * so far; APFS may release more shortly). Snapshots can't be "
                   "recovered.");
}

void Model::reportNothing(Pass pass, bool deletionFailed) {
  ++reached[deletionFailed ? "could not prune" : "nothing to prune"];
  if (!tell(pass, "no_prune_candidates", "", 86400)) return;
  notify(pass,
         "Quillmark can't free more space: On " + pass.volume.name + ", free space is below " +
             gigabytes(pass.volume.policy->lowSpaceBytes) +
             (deletionFailed ? " and Quillmark could not delete the snapshot it selected to reclaim space. It "
                               "will try again on the next check; see the activity log for the reason. Free "
                               "space manually if the volume is urgently full."
                             : " but no snapshots can be pruned. The rest are protected, in use, or the newest "
                               "of their kind. Consider unprotecting older snapshots or freeing space manually."));
}

bool Model::awaitSpace(Pass& pass) {
  ModelVolume& volume = pass.volume;
  const std::int64_t threshold = volume.policy->lowSpaceBytes;
  volume.freeBefore.emplace(pass.now, volume.free);
  volume.free += std::exchange(volume.coming, 0);
  for (int i = 0; i < 4; ++i) {
    pass.now += 3 * second;
    volume.busyUntil = pass.now;
    if (measure(volume) && *volume.measured >= threshold + margin(threshold)) return true;
  }
  return false;
}

std::optional<std::string> Model::lowSpaceCandidate(Pass pass) {
  ModelVolume& volume = pass.volume;
  if (volume.cannotTellProtected || volume.cannotList) return std::nullopt;
  std::set<std::string> newest;
  for (int cadence = 0; cadence < cadences; ++cadence) {
    const auto counted = countedOf(volume, cadence);
    if (!counted.empty()) newest.insert(counted.front()->name);
  }
  const ModelSnapshot* oldest = nullptr;
  for (const ModelSnapshot& snapshot : volume.snapshots) {
    const NameKind kind = kindOf(snapshot.name);
    const bool stays = kind == NameKind::system || snapshot.isProtected || snapshot.isMounted ||
                       (kind == NameKind::foreign && volume.policy->protectForeign) || newest.contains(snapshot.name);
    if (!stays && (!oldest || isOlder(&snapshot, oldest))) oldest = &snapshot;
  }
  if (!oldest) return std::nullopt;
  if (countOf(volume, isNotSystem) < 2) {
    ++reached["spared the last for space"];
    return std::nullopt;
  }
  return oldest->name;
}

bool Model::remove(Pass pass, const std::string& name, const std::string& reason) {
  ModelVolume& volume = pass.volume;
  if (!gateIsOpen()) {
    ++reached["gate closed"];
    return false;
  }
  if (cannotDelete) {
    ++reached["deletion failed"];
    act(pass, "delete failed [" + name + "] Prune failed. " + reason);
    return false;
  }
  const auto found = withName(volume, name);
  volume.coming += found->bytes;
  volume.snapshots.erase(found);
  ++volume.generation;
  act(pass, "delete done [" + name + "] " + reason);
  return true;
}

bool Model::tell(Pass pass, const std::string& event, const std::string& cadence, double interval) {
  const double now = secondsOf(pass.now);
  const auto last = lastTold_.find(pass.uuid + "|" + event + "|" + cadence);
  // A clock that was set back counts as time that has passed: better told twice than silent for a year.
  if (last != lastTold_.end() && now >= last->second && now - last->second < interval) return false;
  lastTold_.insert_or_assign(pass.uuid + "|" + event + "|" + cadence, now);
  events[pass.uuid].push_back(event + "(" + cadence + ")");
  return true;
}

}  // namespace quillmark::months
