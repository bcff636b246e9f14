#include "history/ExclusionPolicy.h"

#include <algorithm>
#include <optional>
#include <set>

#include "base/Text.h"
#include "platform/clock.h"
#include "scheduling/rules/PolicySource.h"
#include "snapshots/HomeDirectories.h"

namespace quillmark {
namespace {

using Components = std::vector<std::string>;

Components componentsOf(const std::string& path) {
  Components components;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    if (end > at) components.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  return components;
}

bool fits(const std::string& pattern, const std::string& component) { return pattern == "*" || pattern == component; }

bool fits(const Components& pattern, const Components& components) {
  return std::equal(pattern.begin(), pattern.end(), components.begin(), components.end(),
                    [](const auto& a, const auto& b) { return fits(a, b); });
}

Components joined(Components first, const Components& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// The part of an absolute pattern that lies on the volume mounted there, empty for its very root; absent when it leads
// elsewhere.
std::optional<Components> within(const Components& mountPoint, const Components& pattern) {
  if (pattern.size() < mountPoint.size()) return std::nullopt;
  const auto split = pattern.begin() + static_cast<std::ptrdiff_t>(mountPoint.size());
  if (!fits(Components(pattern.begin(), split), mountPoint)) return std::nullopt;
  return Components(split, pattern.end());
}

// Of one volume, each once; those that a pattern covers aside. The volume's root is a home without components.
std::set<Components> homesOn(const Components& mountPoint, const std::vector<std::string>& known,
                             const std::vector<std::string>& patterns) {
  std::set<Components> homes;
  for (const std::string& pattern : patterns) {
    if (auto place = within(mountPoint, componentsOf(pattern))) homes.insert(*std::move(place));
  }
  const std::set<Components> covering = homes;
  for (const std::string& home : known) {
    Components place = componentsOf(home);
    const auto covers = [&](const Components& pattern) { return fits(pattern, place); };
    if (std::none_of(covering.begin(), covering.end(), covers)) homes.insert(std::move(place));
  }
  return homes;
}

// A rule for every home, as the settings write it, without the place of the home.
std::optional<Components> withinHome(const std::string& rule) {
  const Components components = componentsOf(rule);
  if (components.size() <= 2 || components[0] != "Users" || components[1] != "*") return std::nullopt;
  return Components(components.begin() + 2, components.end());
}

}  // namespace

ExclusionPolicy::ExclusionPolicy(SettingsSource& settings, HomeDirectories& homes, Clock& clock, HostExclusions host)
    : settings_(settings), homes_(homes), clock_(clock), host_(std::move(host)) {}

ExclusionRules ExclusionPolicy::rules(const std::string& mountPoint) const {
  const HelperSettings settings = settings_.current().value_or(HelperSettings());
  if (mountPoint.empty()) {
    return ExclusionRules::compile(settings.excludedPathRules, settings.excludedDirectoryNames, {});
  }
  const Components mount = componentsOf(mountPoint);
  const Date now = clock_.now();
  const std::set<Components> homes = homesOn(mount, homes_.relativePaths(mountPoint, now), host_.homes);
  std::vector<std::string> homePaths;
  for (const Components& home : homes) homePaths.push_back("/" + join(home, "/"));
  ExclusionRules rules =
      ExclusionRules::compile(settings.excludedPathRules, settings.excludedDirectoryNames, homePaths);

  const bool isHomeItself = homes.contains(Components());
  for (const std::string& rule : settings.excludedPathRules) {
    if (auto place = withinHome(rule); place && isHomeItself) rules.paths.push_back(*std::move(place));
  }
  for (const std::string& path : host_.paths) {
    const auto place = within(mount, componentsOf(path));
    if (place && !place->empty()) rules.paths.push_back(*place);
  }
  for (const Components& home : homes) {
    for (const std::string& path : host_.inHomes) rules.paths.push_back(joined(home, componentsOf(path)));
  }
  for (const std::string& path : host_.inVolumes) rules.paths.push_back(componentsOf(path));
  std::set<std::uint32_t> users{0};
  for (const HomeDirectory& home : homes_.all(now)) users.insert(home.uid);
  // Where the desktop's Trash specification has files go that lie outside the home's volume.
  for (const std::uint32_t user : users) rules.paths.push_back({".Trash-" + std::to_string(user)});
  return rules;
}

}  // namespace quillmark
