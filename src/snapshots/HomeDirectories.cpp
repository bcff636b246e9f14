#include "snapshots/HomeDirectories.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>
#include <tuple>

#include "platform/SnapshotCalls.h"
#include "platform/Users.h"

namespace quillmark {
namespace {

constexpr Seconds lifetime{60};
constexpr std::uint32_t nobodysIDs[] = {4294967295, 4294967294};
// What stands in the database for having no home.
constexpr std::array<std::string_view, 5> noHomes{"/", "/var/empty", "/dev/null", "/nonexistent", "/no/home/directory"};

bool isPerson(std::uint32_t uid, const PersonIDs& people) {
  return uid >= people.least && uid <= people.most &&
         std::find(std::begin(nobodysIDs), std::end(nobodysIDs), uid) == std::end(nobodysIDs);
}

bool isHome(std::string_view path) { return std::find(noHomes.begin(), noHomes.end(), path) == noHomes.end(); }

// One slash between names, none at the end, no "." and "..".
std::string standardized(std::string_view path) {
  if (!path.starts_with('/')) return std::string(path);
  std::string result;
  while (!path.empty()) {
    path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
    const std::string_view name = path.substr(0, path.find('/'));
    path.remove_prefix(name.size());
    if (name == "..") {
      result.resize(result.empty() ? 0 : result.rfind('/'));
    } else if (!name.empty() && name != ".") {
      result.append("/").append(name);
    }
  }
  return result.empty() ? "/" : result;
}

std::string relativePath(const std::string& path, const std::string& mountPoint) {
  if (mountPoint == "/") return path;
  if (path == mountPoint) return "/";
  return path.starts_with(mountPoint + "/") ? path.substr(mountPoint.size()) : path;
}

}  // namespace

std::string normalizedMountPoint(const std::string& mountPoint) {
  return mountPoint == "/" ? "/System/Volumes/Data" : mountPoint;
}

HomeDirectories::HomeDirectories(Threads& threads, Users& users, SnapshotCalls& calls)
    : users_(users), calls_(calls), lock_(threads) {}

std::vector<HomeDirectory> HomeDirectories::all(Date now) {
  {
    MutexLock lock(lock_);
    if (known_ && now >= known_->madeAt && now - known_->madeAt < lifetime) return known_->homes;
  }
  std::vector<HomeDirectory> homes = build();
  MutexLock lock(lock_);
  return known_.emplace(Known{std::move(homes), now}).homes;
}

std::vector<HomeDirectory> HomeDirectories::build() {
  const PersonIDs people = users_.personIDs();
  std::vector<UserRecord> candidates;
  std::vector<std::string> written;
  for (UserRecord& user : users_.listedUsers()) {
    std::string path = standardized(user.home);
    if (!isPerson(user.uid, people) || !path.starts_with('/') || !isHome(path)) continue;
    written.push_back(std::move(path));
    candidates.push_back(std::move(user));
  }
  const std::vector<std::optional<std::string>> directories = users_.directoriesAt(written);
  std::vector<HomeDirectory> homes;
  std::set<std::string> seen;
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    const std::optional<std::string>& path = directories[i];
    // One that can't be placed keeps its home from the next user all the same.
    if (!path || !isHome(*path) || !seen.insert(*path).second) continue;
    const auto status = calls_.statfs(*path);
    if (!status) continue;
    homes.push_back(
        {candidates[i].uid, candidates[i].name, *path, status->mntonname, relativePath(*path, status->mntonname)});
  }
  std::sort(homes.begin(), homes.end(), [](const HomeDirectory& a, const HomeDirectory& b) {
    return std::tie(a.path, a.uid) < std::tie(b.path, b.uid);
  });
  return homes;
}

std::vector<HomeDirectory> HomeDirectories::on(const std::string& mountPoint, Date now) {
  std::vector<HomeDirectory> homes = all(now);
  const std::string wanted = normalizedMountPoint(mountPoint);
  std::erase_if(homes, [&](const HomeDirectory& home) { return normalizedMountPoint(home.mountPoint) != wanted; });
  return homes;
}

std::vector<std::string> HomeDirectories::relativePaths(const std::string& mountPoint, Date now) {
  std::vector<std::string> found;
  for (HomeDirectory& home : on(mountPoint, now)) found.push_back(std::move(home.relativePath));
  return found;
}

std::vector<std::string> HomeDirectories::paths(const std::string& mountPoint, Date now) {
  std::vector<std::string> found;
  for (HomeDirectory& home : on(mountPoint, now)) found.push_back(std::move(home.path));
  return found;
}

}  // namespace quillmark
