#include "snapshots/SnapshotNamePersistence.h"

#include "base/Text.h"
#include "platform/Files.h"
#include "platform/PlatformLog.h"
#include "platform/posix.h"
#include "snapshots/LogNames.h"
#include "snapshots/StoreHomes.h"
#include "snapshots/StorePayloads.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

constexpr std::string_view logCategory = "names";

}  // namespace

SnapshotNamePersistence::SnapshotNamePersistence(Threads& threads, Posix& posix, Random& random, PlatformLog& log,
                                                 const HostPaths& paths)
    : posix_(posix), random_(random), log_(log), path_(paths.state("snapshot-names.json")), lock_(threads) {}

std::optional<std::string> SnapshotNamePersistence::displayName(const VolumeUuid& volume, const std::string& snapshot) {
  MutexLock lock(lock_);
  loadLocked();
  const auto names = byVolume_.find(volume);
  if (names == byVolume_.end()) return std::nullopt;
  const auto name = names->second.find(snapshot);
  return name == names->second.end() ? std::nullopt : std::optional(name->second);
}

std::optional<Error> SnapshotNamePersistence::setDisplayName(const VolumeUuid& volume, const std::string& snapshot,
                                                             const std::string& displayName) {
  MutexLock lock(lock_);
  loadLocked();
  if (loadFailureDescription_) {
    return QuillmarkError::make(
        QuillmarkErrorCode::internalError,
        "The snapshot-name store is unreadable and will not be overwritten: " + *loadFailureDescription_);
  }
  const NamesByVolume before = byVolume_;
  const std::string name = trimWhitespaceAndNewlines(displayName);
  if (name.empty()) {
    removeLocked(volume, snapshot);
  } else {
    byVolume_[volume][snapshot] = name;
  }
  std::optional<Error> failure = writeLocked();
  if (!failure) return std::nullopt;
  byVolume_ = before;
  log_.log(PlatformLogType::error, LogNames::subsystem, logCategory,
           "snapshot name store write failed: " + failure->description());
  return failure;
}

void SnapshotNamePersistence::forgetDeleted(const VolumeUuid& volume, const std::string& snapshot) {
  MutexLock lock(lock_);
  loadLocked();
  if (loadFailureDescription_ || !removeLocked(volume, snapshot)) return;
  static_cast<void>(writeLocked());
}

bool SnapshotNamePersistence::removeLocked(const VolumeUuid& volume, const std::string& snapshot) {
  const auto names = byVolume_.find(volume);
  if (names == byVolume_.end()) return false;
  const bool wasThere = names->second.erase(snapshot) != 0;
  if (names->second.empty()) byVolume_.erase(names);
  return wasThere;
}

void SnapshotNamePersistence::loadLocked() {
  if (loaded_) return;
  loaded_ = true;
  try {
    if (const auto text = readStoreFile(posix_, path_)) byVolume_ = StorePayloads::decodeTextsByVolume(*text);
  } catch (const std::exception& failure) {
    loadFailureDescription_ = asError(failure).description();
    log_.log(PlatformLogType::error, LogNames::subsystem, logCategory,
             "snapshot name store is unreadable: " + *loadFailureDescription_);
  }
}

std::optional<Error> SnapshotNamePersistence::writeLocked() {
  try {
    createStoreDirectory(posix_, path_);
    const std::string directory = parentDirectory(path_);
    if (const SysStatus changed = posix_.chmod(directory, 0700); !changed) {
      throw posixError("chmod", directory, changed.error());
    }
    writeStoreFile(posix_, random_, path_, StorePayloads::encodeTextsByVolume(byVolume_));
    return std::nullopt;
  } catch (const std::exception& failure) {
    return asError(failure);
  }
}

}  // namespace quillmark
