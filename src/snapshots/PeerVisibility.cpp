#include "snapshots/PeerVisibility.h"

#include <algorithm>

#include "platform/posix.h"
#include "snapshots/APFSManager.h"
#include "snapshots/HomeDirectories.h"

namespace quillmark {
namespace {

constexpr Seconds lifetime{60.0};

}  // namespace

PeerVisibility::PeerVisibility(Threads& threads, Posix& posix, HomeDirectories& homes, APFSManager& apfs)
    : clock_(threads.clock()), posix_(posix), homes_(homes), apfs_(apfs), lock_(threads) {}

std::vector<std::string> PeerVisibility::hiddenPrefixes(std::optional<std::uint32_t> uid,
                                                        const std::string& mountPoint) {
  if (!uid || *uid == 0) return {};
  const CacheKey key{*uid, normalizedMountPoint(mountPoint)};
  const Date now = clock_.now();
  {
    MutexLock lock(lock_);
    const auto known = cache_.find(key);
    if (known != cache_.end() && now >= known->second.at && now - known->second.at < lifetime) {
      return known->second.prefixes;
    }
  }
  std::vector<std::string> prefixes;
  for (const HomeDirectory& home : homes_.all(now)) {
    if (normalizedMountPoint(home.mountPoint) != key.mount || home.relativePath == "/") continue;
    // By who has it now: a home that was handed on follows its owner.
    const SysResult<FileStatus> status = posix_.lstat(home.path);
    if (!status || status->type != FileType::directory || status->uid == *uid || status->uid == 0) continue;
    prefixes.push_back(home.relativePath);
  }
  MutexLock lock(lock_);
  cache_[key] = {prefixes, clock_.now()};
  return prefixes;
}

std::optional<VolumeInfo> PeerVisibility::volumeToFilter(std::optional<std::uint32_t> uid,
                                                         const std::string& volumeUUID) {
  if (!uid || *uid == 0) return std::nullopt;
  const std::vector<HomeDirectory> homes = homes_.all(clock_.now());
  if (std::none_of(homes.begin(), homes.end(), [&](const HomeDirectory& home) { return home.uid != *uid; })) {
    return std::nullopt;
  }
  try {
    return apfs_.resolveVolume(volumeUUID);
  } catch (const Error&) {
    return std::nullopt;
  }
}

bool PeerVisibility::isBelow(std::string_view path, const std::vector<std::string>& prefixes) {
  return std::any_of(prefixes.begin(), prefixes.end(), [&](const std::string& prefix) {
    return path.starts_with(prefix) && (path.size() == prefix.size() || path[prefix.size()] == '/');
  });
}

}  // namespace quillmark
