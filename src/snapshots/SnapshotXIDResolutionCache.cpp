#include "snapshots/SnapshotXIDResolutionCache.h"

#include <algorithm>
#include <cmath>

#include "base/Error.h"
#include "platform/Files.h"
#include "platform/PlatformLog.h"
#include "snapshots/LogNames.h"
#include "snapshots/RootCacheFile.h"
#include "wire/RecordCoding.h"

namespace quillmark {
namespace {

constexpr std::int64_t fileVersion = 1;
constexpr std::size_t maxFileSize = std::size_t{64} << 20;

struct StoredRow {
  std::string name;
  std::uint64_t fileID = 0;
  std::int64_t ctimeNS = 0;
  Xid xid;
};

struct StoredCache {
  std::int64_t version = 0;
  std::vector<StoredRow> rows;
};

}  // namespace

template <>
struct Description<StoredRow> {
  static void fields(auto& field, auto& row) {
    field("name", row.name);
    field("fileID", row.fileID);
    field("ctimeNS", row.ctimeNS);
    field("xid", row.xid);
  }
};

template <>
struct Description<StoredCache> {
  static void fields(auto& field, auto& cache) {
    field("version", cache.version);
    field("rows", cache.rows);
  }
};

SnapshotXIDResolutionCache::SnapshotXIDResolutionCache(Threads& threads, Posix& posix, Random& random, PlatformLog& log,
                                                       const HostPaths& paths)
    : clock_(threads.clock()), posix_(posix), random_(random), log_(log), directory_(paths.state("snapshot-xids")),
      lock_(threads) {}

SnapshotXIDResolutionCache::KeyRef::KeyRef(const Key& key) : fileID(key.fileID), ctimeNS(key.ctimeNS), name(key.name) {}

SnapshotXIDResolutionCache::KeyRef::KeyRef(const RawSnapshotEntry& entry)
    : fileID(entry.fileID), ctimeNS(std::llround(entry.created.secondsSince1970() * 1e9)), name(entry.name) {}

std::optional<std::vector<Xid>> SnapshotXIDResolutionCache::lookup(const std::string& volumeUUID,
                                                                   const std::vector<RawSnapshotEntry>& entries) {
  const VolumeUuid volume(volumeUUID);
  loadIfNeeded(volume);
  std::vector<Xid> xids;
  xids.reserve(entries.size());
  Rows kept;
  {
    MutexLock lock(lock_);
    const auto known = byVolume_.find(volume);
    if (known == byVolume_.end()) return std::nullopt;
    for (const RawSnapshotEntry& entry : entries) {
      const auto row = known->second.find(KeyRef(entry));
      if (row == known->second.end()) return std::nullopt;
      xids.push_back(row->second);
    }
    if (known->second.size() > entries.size()) {
      Rows rows;
      for (const RawSnapshotEntry& entry : entries) {
        const auto row = known->second.find(KeyRef(entry));
        if (row != known->second.end()) rows.insert(known->second.extract(row));
      }
      known->second = std::move(rows);
      dropped_[volume].areInFile = true;
    }
    if (!isWriteDueLocked(volume)) return xids;
    kept = known->second;
  }
  writeFile(volume, kept);
  return xids;
}

bool SnapshotXIDResolutionCache::isWriteDueLocked(const VolumeUuid& volume) {
  constexpr std::chrono::seconds interval{1};
  const auto found = dropped_.find(volume);
  if (found == dropped_.end() || !found->second.areInFile) return false;
  const MonotonicTime now = clock_.monotonic();
  if (found->second.lastWrite && now - *found->second.lastWrite < interval) return false;
  found->second = {.areInFile = false, .lastWrite = now};
  return true;
}

void SnapshotXIDResolutionCache::store(const std::string& volumeUUID, const std::vector<RawSnapshotEntry>& entries,
                                       const std::vector<Xid>& xids) {
  if (entries.size() != xids.size()) return;
  const VolumeUuid volume(volumeUUID);
  Rows rows;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const KeyRef key(entries[i]);
    rows[{key.fileID, key.ctimeNS, entries[i].name}] = xids[i];
  }
  {
    MutexLock lock(lock_);
    byVolume_[volume] = rows;
    loaded_.insert(volume);
    dropped_.erase(volume);
  }
  writeFile(volume, rows);
}

// The file is read outside the lock; of two readers the first to come back counts.
void SnapshotXIDResolutionCache::loadIfNeeded(const VolumeUuid& volume) {
  {
    MutexLock lock(lock_);
    if (loaded_.contains(volume)) return;
  }
  std::optional<Rows> rows;
  if (Uuid::parse(volume.text())) rows = readFile(volume);
  MutexLock lock(lock_);
  if (!loaded_.insert(volume).second || !rows) return;
  byVolume_.emplace(volume, std::move(*rows));
}

std::optional<SnapshotXIDResolutionCache::Rows> SnapshotXIDResolutionCache::readFile(const VolumeUuid& volume) {
  try {
    const std::optional<std::string> text = quillmark::readFile(posix_, pathOf(volume), maxFileSize);
    if (!text) return std::nullopt;
    const auto stored = decodeJson<StoredCache>(*text);
    if (stored.version != fileVersion) return std::nullopt;
    Rows rows;
    for (const StoredRow& row : stored.rows) rows[{row.fileID, row.ctimeNS, row.name}] = row.xid;
    return rows;
  } catch (const Error&) {
    return std::nullopt;
  }
}

void SnapshotXIDResolutionCache::writeFile(const VolumeUuid& volume, const Rows& rows) {
  if (!Uuid::parse(volume.text())) return;
  StoredCache stored{fileVersion, {}};
  for (const auto& [key, xid] : rows) stored.rows.push_back({key.name, key.fileID, key.ctimeNS, xid});
  std::sort(stored.rows.begin(), stored.rows.end(),
            [](const StoredRow& a, const StoredRow& b) { return a.xid < b.xid; });
  try {
    writeRootCacheFile(posix_, random_, encodeJson(stored), pathOf(volume));
  } catch (const Error& error) {
    log_.log(PlatformLogType::normal, LogNames::subsystem, LogNames::apfs,
             "snapshot XID cache for " + volume.text() + " could not be written: " + error.description());
  }
}

std::string SnapshotXIDResolutionCache::pathOf(const VolumeUuid& volume) const {
  return directory_ + "/" + volume.text() + ".json";
}

}  // namespace quillmark
