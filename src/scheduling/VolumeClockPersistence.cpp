#include "scheduling/VolumeClockPersistence.h"

#include "base/Error.h"
#include "platform/PlatformLog.h"
#include "scheduling/LogCategories.h"
#include "snapshots/LogNames.h"
#include "wire/RecordCoding.h"

namespace quillmark {

template <>
struct Description<VolumeClockPersistence::Entry> {
  static void fields(auto& field, auto& entry) {
    field("firstSeenAt", entry.firstSeenAt);
    field("discoveryNoticeSent", entry.discoveryNoticeSent);
  }
};

VolumeClockPersistence::VolumeClockPersistence(Threads& threads, Posix& posix, Random& random, PlatformLog& log,
                                               const HostPaths& paths)
    : log_(log), file_(posix, random, paths, "volume-clocks.json"), lock_(threads) {}

Date VolumeClockPersistence::noteSeen(const VolumeUuid& volume, Date now) {
  MutexLock lock(lock_);
  if (const Entry* known = entryLocked(volume)) return known->firstSeenAt;
  entries_[volume.text()] = {.firstSeenAt = now};
  writeLocked();
  return now;
}

std::optional<Date> VolumeClockPersistence::firstSeen(const VolumeUuid& volume) {
  MutexLock lock(lock_);
  const Entry* known = entryLocked(volume);
  return known ? std::optional(known->firstSeenAt) : std::nullopt;
}

bool VolumeClockPersistence::discoveryPending(const VolumeUuid& volume) {
  MutexLock lock(lock_);
  const Entry* known = entryLocked(volume);
  return known && !known->discoveryNoticeSent;
}

void VolumeClockPersistence::markDiscoveryNoticeSent(const VolumeUuid& volume) {
  MutexLock lock(lock_);
  Entry* known = entryLocked(volume);
  if (!known || known->discoveryNoticeSent) return;
  known->discoveryNoticeSent = true;
  writeLocked();
}

VolumeClockPersistence::Entry* VolumeClockPersistence::entryLocked(const VolumeUuid& volume) {
  loadLocked();
  const auto found = entries_.find(volume.text());
  return found == entries_.end() ? nullptr : &found->second;
}

void VolumeClockPersistence::loadLocked() {
  if (loaded_) return;
  loaded_ = true;
  try {
    if (const auto text = file_.read()) entries_ = decodeJson<Entries>(*text);
  } catch (const std::exception&) {
    // Whatever the file was, the next write replaces it.
  }
}

void VolumeClockPersistence::writeLocked() {
  try {
    file_.replace(encodeJson(entries_));
  } catch (const std::exception& failure) {
    log_.log(PlatformLogType::error, LogNames::subsystem, LogCategories::volumeClocks,
             "volume clock store write failed: " + asError(failure).description());
  }
}

}  // namespace quillmark
