#include "scheduling/SchedulePersistence.h"

#include <fmt/format.h>

#include "base/Error.h"
#include "platform/PlatformLog.h"
#include "scheduling/LogCategories.h"
#include "snapshots/LogNames.h"
#include "wire/Json.h"
#include "wire/QuillmarkError.h"

namespace quillmark {

SchedulePersistence::SchedulePersistence(Threads& threads, Posix& posix, Random& random, PlatformLog& log,
                                         const HostPaths& paths)
    : log_(log), file_(posix, random, paths, "schedules.json"),
      foreignProtectionMarker_(posix, random, paths, ".foreign-protection-migrated"), lock_(threads) {}

SchedulePolicy SchedulePersistence::policy(const VolumeUuid& volume) {
  MutexLock lock(lock_);
  loadLocked();
  const auto stored = policies_.find(volume.text());
  return (stored == policies_.end() ? SchedulePolicy::makeDefault() : stored->second).normalized();
}

bool SchedulePersistence::hasPolicy(const VolumeUuid& volume) {
  MutexLock lock(lock_);
  loadLocked();
  return policies_.contains(volume.text());
}

std::map<std::string, SchedulePolicy> SchedulePersistence::allPolicies() {
  MutexLock lock(lock_);
  loadLocked();
  Policies normalized;
  for (const auto& [volume, policy] : policies_) normalized.emplace(volume, policy.normalized());
  return normalized;
}

SchedulePolicy SchedulePersistence::setPolicy(const VolumeUuid& volume, const SchedulePolicy& policy) {
  MutexLock lock(lock_);
  loadLocked();
  return setLocked(volume, policy);
}

SchedulePolicy SchedulePersistence::stampAndSetPolicy(const VolumeUuid& volume, const SchedulePolicy& policy,
                                                      Date now) {
  MutexLock lock(lock_);
  loadLocked();
  std::optional<SchedulePolicy> previous;
  if (const auto stored = policies_.find(volume.text()); stored != policies_.end()) {
    previous = stored->second.normalized();
  }
  return setLocked(volume, policy.stamped(previous, now));
}

SchedulePolicy SchedulePersistence::setLocked(const VolumeUuid& volume, const SchedulePolicy& policy) {
  if (loadFailureDescription_) {
    throw QuillmarkError::make(QuillmarkErrorCode::internalError,
                               "Schedule storage is degraded and cannot be overwritten: " + *loadFailureDescription_);
  }
  if (policies_.size() >= mostVolumes && !policies_.contains(volume.text())) {
    throw QuillmarkError::make(QuillmarkErrorCode::internalError,
                               fmt::format("Schedules of {} volumes are stored, which is the most.", mostVolumes));
  }
  SchedulePolicy stored = policy.normalized();
  Policies changed = policies_;
  changed.insert_or_assign(volume.text(), stored);
  try {
    write(changed);
  } catch (const std::exception& failure) {
    loadFailureDescription_ = "write failed: " + asError(failure).description();
    throw;
  }
  policies_ = std::move(changed);
  return stored;
}

std::optional<std::string> SchedulePersistence::loadFailureDescription() {
  MutexLock lock(lock_);
  loadLocked();
  return loadFailureDescription_;
}

void SchedulePersistence::loadLocked() {
  if (loaded_) return;
  loaded_ = true;
  if (readLocked()) protectForeignOnceLocked();
}

bool SchedulePersistence::readLocked() {
  std::optional<std::string> text;
  try {
    text = file_.read();
  } catch (const std::exception& failure) {
    const std::string why = asError(failure).description();
    degradeLocked("read failed: " + why,
                  "schedule store exists but cannot be read; automatic mutations disabled: " + why);
    return false;
  }
  if (!text) return true;
  try {
    policies_ = decodeJson<Policies>(*text);
  } catch (const std::exception& failure) {
    const std::string why = asError(failure).description();
    degradeLocked("decode failed: " + why, "schedule store decode failed; automatic mutations disabled: " + why);
    return false;
  }
  return true;
}

void SchedulePersistence::degradeLocked(const std::string& description, const std::string& logMessage) {
  loadFailureDescription_ = description;
  log_.log(PlatformLogType::fault, LogNames::subsystem, LogCategories::schedules, logMessage);
}

// Policies from before foreign snapshots were protected by default get the protection, once. Who turns it off
// afterwards is heeded: so the mark is also made where there was nothing to change.
void SchedulePersistence::protectForeignOnceLocked() {
  try {
    if (foreignProtectionMarker_.exists()) return;
    std::size_t changed = 0;
    for (auto& [volume, policy] : policies_) {
      if (policy.protectForeignSnapshots) continue;
      policy.protectForeignSnapshots = true;
      ++changed;
    }
    if (changed > 0) {
      write(policies_);
      log_.log(PlatformLogType::normal, LogNames::subsystem, LogCategories::schedules,
               fmt::format("migrated {} volume policy/policies to protect foreign snapshots from low-space pruning",
                           changed));
    }
    foreignProtectionMarker_.secureDirectory();
    foreignProtectionMarker_.replace("");
  } catch (const std::exception& failure) {
    log_.log(PlatformLogType::error, LogNames::subsystem, LogCategories::schedules,
             "foreign-snapshot protection migration could not be saved; will retry: " + asError(failure).description());
  }
}

void SchedulePersistence::write(const Policies& policies) const {
  file_.secureDirectory();
  file_.replace(encodeJson(policies));
}

}  // namespace quillmark
