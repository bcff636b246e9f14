// PeerVisibility: which parts of a volume are other people's homes, so that one user's listings and searches don't show
// what lies in another's.
// Ownership: borrows its facilities.
// Threads:   thread-safe; homes are looked at outside the lock.
// Errors:    none: a home that can't be looked at hides nothing, a volume that can't be resolved filters nothing.
// Units:     what was worked out stands for 60 seconds.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Date.h"
#include "platform/sync.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

class APFSManager;
class HomeDirectories;
class Posix;

class PeerVisibility final {
 public:
  PeerVisibility(Threads& threads, Posix& posix, HomeDirectories& homes, APFSManager& apfs);

  // Paths from the mount point on; none for root and for a peer whom nobody knows.
  [[nodiscard]] std::vector<std::string> hiddenPrefixes(std::optional<std::uint32_t> uid, const std::string& mountPoint)
      EXCLUDES(lock_);

  // Without what lies in another user's home; the order stays. pathOf gives a record's path from the volume's root on.
  template <class Record, class PathOf>
  [[nodiscard]] std::vector<Record> filterForPeer(std::optional<std::uint32_t> uid, std::vector<Record> records,
                                                  const std::string& volumeUUID, PathOf pathOf) {
    const auto volume = volumeToFilter(uid, volumeUUID);
    return volume ? filterForPeerOnVolume(uid, std::move(records), *volume, pathOf) : std::move(records);
  }
  template <class Record, class PathOf>
  [[nodiscard]] std::vector<Record> filterForPeerOnVolume(std::optional<std::uint32_t> uid, std::vector<Record> records,
                                                          const VolumeInfo& volume, PathOf pathOf) {
    const std::vector<std::string> prefixes = hiddenPrefixes(uid, volume.mountPoint);
    std::erase_if(records, [&](const Record& record) { return isBelow(pathOf(record), prefixes); });
    return records;
  }

 private:
  struct CacheKey {
    std::uint32_t uid;
    std::string mount;
    auto operator<=>(const CacheKey&) const = default;
  };
  struct CacheEntry {
    std::vector<std::string> prefixes;
    Date at;
  };
  // Absent when there is nothing to filter, or no way to know.
  [[nodiscard]] std::optional<VolumeInfo> volumeToFilter(std::optional<std::uint32_t> uid,
                                                         const std::string& volumeUUID);
  [[nodiscard]] static bool isBelow(std::string_view path, const std::vector<std::string>& prefixes);

  Clock& clock_;
  Posix& posix_;
  HomeDirectories& homes_;
  APFSManager& apfs_;
  Mutex lock_;
  std::map<CacheKey, CacheEntry> cache_ GUARDED_BY(lock_);  // bounded by users times volumes
};

}  // namespace quillmark
