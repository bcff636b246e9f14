#include "SimulatedMonthsModel.h"

#include <algorithm>
#include <cmath>
#include <tuple>
#include <utility>

namespace quillmark::months {
namespace {

const std::string prefix = "com.harrowfern.Quillmark.";
constexpr double referenceTo1970 = 978'307'200;
constexpr double lifespans[cadences] = {3600, 86400, 604800, 2592000, 31536000};
constexpr double never = 1e18;

bool isOwned(const std::string& name) { return name.starts_with(prefix); }
std::int64_t margin(std::int64_t threshold) { return threshold / 10; }

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
  for (int cadence = 0; cadence < cadences; ++cadence) {
    if (name.starts_with(prefix + "auto." + cadenceWords[cadence] + ".")) return cadence;
  }
  return -1;
}

NameKind kindOf(const std::string& name) {
  if (name.starts_with("com.apple.os")) return NameKind::system;
  if (!isOwned(name)) return NameKind::foreign;
  if (cadenceOf(name) >= 0) return NameKind::automatic;
  return name.starts_with(prefix + "safety") ? NameKind::safety : NameKind::manual;
}

bool Model::gateIsOpen() const {
  const bool isOn = settingsDegraded || automaticDeletion;
  return isOn && !schedulesDegraded && !settingsDegraded && !protectionDegraded;
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
  }
}

void Model::minute(Moment now) {
  ++ticks_;
  if (schedulesDegraded) return;
  for (auto& [uuid, volume] : volumes) {
    if (volume.isPresent && !volume.firstSeen) volume.firstSeen = secondsOf(now);
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
    tell(pass, "create_failed", word, 3600);
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
    const int hours = settingsDegraded ? 24 : safetyHours;
    return std::max(start + hours * 3600.0, grace);
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
  if (volume.cannotTellProtected || protectionDegraded) {
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
  int deleted = 0, automatic = 0;
  for (const auto& [end, order, name] : expired) {
    if (deleted == 8 || remaining < 2) {
      ++reached[deleted == 8 ? "swept the most" : "swept down to the last"];
      break;
    }
    if (withName(volume, name)->isMounted) continue;
    const bool isSafety = kindOf(name) == NameKind::safety;
    const int hours = settingsDegraded ? 24 : safetyHours;
    const std::string reason = isSafety ? "Expired safety snapshot: its " + std::to_string(hours) + "h TTL *"
                                        : "Expired automatic snapshot: *";
    if (!remove(pass, name, reason)) break;
    ++reached[isSafety ? "swept a safety snapshot" : "swept an automatic one"];
    ++deleted;
    --remaining;
    automatic += isSafety ? 0 : 1;
  }
  if (automatic > 0) tell(pass, "prune_completed", "", 21600);
}

void Model::discover(Pass pass) {
  ModelVolume& volume = pass.volume;
  if (!volume.firstSeen || volume.isNoticeSent) return;
  volume.isNoticeSent = true;
  const bool found = std::any_of(volume.snapshots.begin(), volume.snapshots.end(), [&](const ModelSnapshot& snapshot) {
    return isOwned(snapshot.name) && snapshot.created < *volume.firstSeen - 60;
  });
  if (!found) return;
  ++reached["discovered"];
  events[pass.uuid].push_back("snapshots_discovered()");
}

bool Model::measure(ModelVolume& volume) const {
  if (!volume.isPresent || volume.cannotMeasure) return false;
  volume.measured = volume.free;
  return true;
}

void Model::freeSpace(Moment now) {
  for (auto& [uuid, volume] : volumes) (void)measure(volume);
  for (auto& entry : volumes) {
    auto& [uuid, volume] = entry;
    const bool isEligible = gateIsOpen() && volume.policy && volume.policy->pruneOnLowSpace && volume.policy->isTracked;
    if (volume.isPresent && volume.measured) warn(uuid, volume, isEligible);
    if (isEligible) lowSpace(queued(entry, now));
  }
}

void Model::warn(const std::string& uuid, ModelVolume& volume, bool isEligible) {
  const std::int64_t threshold = volume.policy && !schedulesDegraded ? volume.policy->lowSpaceBytes : 30'000'000'000;
  const std::int64_t above = *volume.measured - threshold;
  if (isEligible && above >= 0 && above < margin(threshold)) {
    ++reached["warned early"];
    volume.hasWarning = true;
    warnings[uuid].push_back("warned");
  } else if ((!isEligible || above >= 2 * margin(threshold)) && volume.hasWarning) {
    volume.hasWarning = false;
    warnings[uuid].push_back("resolved");
  }
}

void Model::lowSpace(Pass pass) {
  ModelVolume& volume = pass.volume;
  if (!volume.isPresent || volume.isBackup || !measure(volume)) return;
  const std::int64_t threshold = volume.policy->lowSpaceBytes;
  if (*volume.measured >= threshold) return;
  int deleted = 0;
  for (; deleted < 4; ++deleted) {
    const auto name = lowSpaceCandidate(pass);
    if (!name || !remove(pass, *name, "Pruned because volume free space (*")) break;
    ++reached["pruned for space"];
    if (awaitSpace(pass)) {
      ++deleted;
      break;
    }
  }
  if (deleted > 0) {
    events[pass.uuid].push_back("prune_completed()");
  } else if (*volume.measured < threshold) {
    ++reached["nothing to prune"];
    tell(pass, "no_prune_candidates", "", 86400);
  }
}

bool Model::awaitSpace(Pass& pass) {
  ModelVolume& volume = pass.volume;
  const std::int64_t threshold = volume.policy->lowSpaceBytes;
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
  if (volume.cannotTellProtected || volume.cannotList || countOf(volume, isNotSystem) < 2) return std::nullopt;
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
  return oldest ? std::optional(oldest->name) : std::nullopt;
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

void Model::tell(Pass pass, const std::string& event, const std::string& cadence, double interval) {
  const double now = secondsOf(pass.now);
  const auto last = lastTold_.find(pass.uuid + "|" + event + "|" + cadence);
  // A clock that was set back counts as time that has passed: better told twice than silent for a year.
  if (last != lastTold_.end() && now >= last->second && now - last->second < interval) return;
  lastTold_.insert_or_assign(pass.uuid + "|" + event + "|" + cadence, now);
  events[pass.uuid].push_back(event + "(" + cadence + ")");
}

}  // namespace quillmark::months
