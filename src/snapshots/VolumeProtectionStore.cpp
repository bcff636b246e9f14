#include "snapshots/VolumeProtectionStore.h"

#include <cerrno>

#include "platform/PlatformLog.h"
#include "platform/VolumeAttributes.h"
#include "snapshots/LogNames.h"
#include "snapshots/ProtectionFile.h"
#include "snapshots/StoreHomes.h"
#include "snapshots/StorePayloads.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

constexpr std::string_view logCategory = "protection";
const char* const attributeName = "com.harrowfern.quillmark.protected-xids";

Error internalError(std::string message) {
  return QuillmarkError::make(QuillmarkErrorCode::internalError, std::move(message));
}

Error attributeError(const std::string& what, const VolumeInfo& volume, int error) {
  return internalError(what + " failed for " + volume.mountPoint + ": " + errnoText(error));
}

std::set<Xid> migrated(const std::set<Xid>& xids, const std::map<std::uint64_t, Xid>& fileIDToXID) {
  std::set<Xid> targets;
  for (const auto& [fileID, xid] : fileIDToXID) targets.insert(xid);
  std::set<Xid> result = xids;
  for (const Xid xid : xids) {
    const auto moved = fileIDToXID.find(xid.value);
    if (moved == fileIDToXID.end()) continue;
    if (!targets.contains(xid)) result.erase(xid);
    result.insert(moved->second);
  }
  return result;
}

}  // namespace

// Takes the lock on one thread and gives it back there; the analysis can't follow it through an object.
class VolumeProtectionStore::Guard final : public ProtectionGuard {
 public:
  explicit Guard(VolumeProtectionStore& store) NO_THREAD_SAFETY_ANALYSIS : store_(store) { store_.lock_.lock(); }
  ~Guard() override NO_THREAD_SAFETY_ANALYSIS { store_.lock_.unlock(); }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

  void ensureLoaded() NO_THREAD_SAFETY_ANALYSIS { store_.ensureLoadedLocked(); }
  std::set<Xid> protectedXIDs(const VolumeInfo& volume) override NO_THREAD_SAFETY_ANALYSIS {
    return store_.protectedXIDsLocked(volume);
  }
  void forgetDeleted(const VolumeInfo& volume, Xid xid) override NO_THREAD_SAFETY_ANALYSIS {
    store_.forgetDeletedLocked(volume, xid);
  }

 private:
  VolumeProtectionStore& store_;
};

VolumeProtectionStore::VolumeProtectionStore(Threads& threads, Posix& posix, Random& random, PlatformLog& log,
                                             VolumeAttributes& attributes, const HostPaths& paths)
    : posix_(posix), random_(random), log_(log), attributes_(attributes), path_(paths.state("protected.json")),
      waiting_(threads), lock_(threads), verdict_(threads) {}

void VolumeProtectionStore::ensureLoaded() {
  const Verdict verdict = verdict_.with([](const Verdict& known) { return known; });
  if (verdict.failure) throw internalError(*verdict.failure);
  if (verdict.loaded) return;
  MutexLock lock(lock_);
  ensureLoadedLocked();
}

std::unique_ptr<ProtectionGuard> VolumeProtectionStore::lock() {
  auto guard = std::make_unique<Guard>(*this);
  guard->ensureLoaded();
  return guard;
}

std::set<Xid> VolumeProtectionStore::protectedXIDs(const VolumeInfo& volume) {
  MutexLock lock(lock_);
  return protectedXIDsLocked(volume);
}

bool VolumeProtectionStore::setProtected(const VolumeInfo& volume, bool isProtected,
                                         FunctionRef<std::optional<Xid>()> xidOf) {
  MutexLock lock(lock_);
  ensureLoadedLocked();
  const std::optional<Xid> xid = xidOf();
  if (!xid) {
    throw QuillmarkError::make(QuillmarkErrorCode::snapshotNotFound,
                               "Snapshot disappeared before its protection state could be changed");
  }
  applyMigrationLocked(volume.key());
  return changeLocked(volume, *xid, isProtected);
}

bool VolumeProtectionStore::changeLocked(const VolumeInfo& volume, Xid xid, bool isProtected) {
  std::set<Xid> inAttribute = readProtectionAttribute(volume);
  std::set<Xid> local = localSetLocked(volume.key());
  if (isProtected == (inAttribute.contains(xid) || local.contains(xid))) return false;
  if (isProtected) {
    inAttribute.insert(xid);
    if (!writeProtectionAttribute(volume, inAttribute)) local.insert(xid);
  } else {
    inAttribute.erase(xid);
    // Where it can't be written the snapshot stays protected.
    static_cast<void>(writeProtectionAttribute(volume, inAttribute));
    local.erase(xid);
  }
  persistLocked(volume.key(), std::move(local));
  return true;
}

// A listing that runs under the lock comes here on the thread that holds it, so nobody may wait for it here.
void VolumeProtectionStore::migrateIdentities(const VolumeInfo& volume, const std::map<std::uint64_t, Xid>& fileIDToXID)
    NO_THREAD_SAFETY_ANALYSIS {
  if (fileIDToXID.empty()) return;
  const VolumeUuid key = volume.key();
  waiting_.with([&](auto& waiting) { waiting.insert_or_assign(key, Migration{volume, fileIDToXID}); });
  if (!lock_.tryLock()) return;
  const std::unique_ptr<Mutex, void (*)(Mutex*)> held(&lock_,
                                                      [](Mutex* mutex) NO_THREAD_SAFETY_ANALYSIS { mutex->unlock(); });
  ensureLoadedLocked();
  applyMigrationLocked(key);
}

std::set<Xid> VolumeProtectionStore::readProtectionAttribute(const VolumeInfo& volume) const {
  const auto opened = attributes_.open(volume.mountPoint, volume.key());
  if (!opened) throw attributeError("read protection xattr size", volume, opened.error());
  const auto size = (*opened)->size(attributeName);
  if (size.error() == ENODATA) return {};
  if (!size) throw attributeError("read protection xattr size", volume, size.error());
  if (*size == 0) return {};
  const auto value = (*opened)->read(attributeName);
  if (!value) throw attributeError("read protection xattr", volume, value.error());
  try {
    return StorePayloads::decodeProtectedXids(*value);
  } catch (const Error& error) {
    throw internalError("Protection xattr on " + volume.mountPoint + " is corrupt: " + error.description());
  }
}

bool VolumeProtectionStore::writeProtectionAttribute(const VolumeInfo& volume, const std::set<Xid>& xids) const {
  std::optional<std::string> value;
  if (!xids.empty()) value = StorePayloads::encodeProtectedXids(xids);
  const SysStatus written = writeVolumeAttribute(attributes_, volume, attributeName, value);
  if (written) return true;
  log_.log(PlatformLogType::info, LogNames::subsystem, logCategory,
           "protection xattr not writable on " + volume.mountPoint + " (" + errnoText(written.error()) +
               "); using local store");
  return false;
}

void VolumeProtectionStore::ensureLoadedLocked() {
  if (localLoadFailureDescription_) throw internalError(*localLoadFailureDescription_);
  if (localLoaded_) return;
  localLoaded_ = true;
  loadLocked();
  verdict_.with([](Verdict& verdict) { verdict.loaded = true; });
}

void VolumeProtectionStore::loadLocked() {
  try {
    if (const auto text = readStoreFile(posix_, path_)) localByVolume_ = StorePayloads::decodeXidsByVolume(*text);
  } catch (const std::exception& failure) {
    const std::string description = "Protection store exists but is unreadable: " + asError(failure).description();
    log_.log(PlatformLogType::fault, LogNames::subsystem, logCategory, description + "; snapshot deletion disabled");
    degradeLocked(description);
  }
}

void VolumeProtectionStore::degradeLocked(std::string description) {
  localLoadFailureDescription_ = description;
  verdict_.with([&](Verdict& verdict) { verdict.failure = description; });
  throw internalError(std::move(description));
}

std::set<Xid> VolumeProtectionStore::protectedXIDsLocked(const VolumeInfo& volume) {
  ensureLoadedLocked();
  applyMigrationLocked(volume.key());
  std::set<Xid> xids = readProtectionAttribute(volume);
  xids.merge(localSetLocked(volume.key()));
  return xids;
}

void VolumeProtectionStore::forgetDeletedLocked(const VolumeInfo& volume, Xid xid) {
  try {
    forgetInAttribute(volume, xid);
  } catch (const std::exception& failure) {
    log_.log(PlatformLogType::error, LogNames::subsystem, logCategory,
             "deleted snapshot's protection xattr cleanup failed: " + asError(failure).description());
  }
  try {
    forgetLocallyLocked(volume, xid);
  } catch (const std::exception& failure) {
    log_.log(PlatformLogType::error, LogNames::subsystem, logCategory,
             "deleted snapshot's local protection cleanup failed: " + asError(failure).description());
  }
}

void VolumeProtectionStore::forgetInAttribute(const VolumeInfo& volume, Xid xid) const {
  std::set<Xid> xids = readProtectionAttribute(volume);
  if (xids.erase(xid) == 0 || writeProtectionAttribute(volume, xids)) return;
  log_.log(PlatformLogType::error, LogNames::subsystem, logCategory,
           "deleted snapshot's protection xattr entry could not be removed");
}

void VolumeProtectionStore::forgetLocallyLocked(const VolumeInfo& volume, Xid xid) {
  std::set<Xid> local = localSetLocked(volume.key());
  if (local.erase(xid) != 0) persistLocked(volume.key(), std::move(local));
}

// One that fails stays for the next who looks.
void VolumeProtectionStore::applyMigrationLocked(const VolumeUuid& volume) {
  auto taken = waiting_.with([&](auto& waiting) { return waiting.extract(volume); });
  if (taken.empty()) return;
  try {
    migrateLocked(taken.mapped());
  } catch (...) {
    waiting_.with([&](auto& waiting) { waiting.insert(std::move(taken)); });
    throw;
  }
}

void VolumeProtectionStore::migrateLocked(const Migration& migration) {
  const VolumeInfo& volume = migration.volume;
  const std::set<Xid> inAttribute = readProtectionAttribute(volume);
  const std::set<Xid> moved = migrated(inAttribute, migration.fileIDToXID);
  std::set<Xid> local = migrated(localSetLocked(volume.key()), migration.fileIDToXID);
  if (moved != inAttribute && !writeProtectionAttribute(volume, moved)) local.insert(moved.begin(), moved.end());
  persistLocked(volume.key(), std::move(local));
}

std::set<Xid> VolumeProtectionStore::localSetLocked(const VolumeUuid& volume) const {
  const auto found = localByVolume_.find(volume);
  return found == localByVolume_.end() ? std::set<Xid>() : found->second;
}

void VolumeProtectionStore::persistLocked(const VolumeUuid& volume, std::set<Xid> xids) {
  if (xids == localSetLocked(volume)) return;
  XidsByVolume next = localByVolume_;
  if (xids.empty()) {
    next.erase(volume);
  } else {
    next[volume] = std::move(xids);
  }
  try {
    replaceProtectionFile(posix_, random_, path_, StorePayloads::encodeXidsByVolume(next));
  } catch (const std::exception& failure) {
    degradeLocked("Protection store write failed: " + asError(failure).description());
  }
  localByVolume_ = std::move(next);
}

}  // namespace quillmark
