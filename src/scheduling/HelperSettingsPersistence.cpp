#include "scheduling/HelperSettingsPersistence.h"

#include "base/Error.h"
#include "base/HelperLog.h"
#include "wire/Json.h"
#include "wire/QuillmarkError.h"

namespace quillmark {

HelperSettingsPersistence::HelperSettingsPersistence(Threads& threads, Posix& posix, Random& random, HelperLog& log,
                                                     const HostPaths& paths)
    : log_(log), file_(posix, random, paths, "settings.json"), lock_(threads) {}

std::optional<HelperSettings> HelperSettingsPersistence::current() {
  MutexLock lock(lock_);
  loadLocked();
  return cached_;
}

HelperSettings HelperSettingsPersistence::update(const HelperSettings& settings) {
  MutexLock lock(lock_);
  loadLocked();
  if (loadFailureDescription_) {
    throw QuillmarkError::make(
        QuillmarkErrorCode::internalError,
        "Helper settings storage is degraded and cannot be overwritten: " + *loadFailureDescription_);
  }
  HelperSettings stored = settings.normalized();
  try {
    write(stored);
  } catch (const std::exception& failure) {
    loadFailureDescription_ = "write failed: " + asError(failure).description();
    throw;
  }
  cached_ = stored;
  return stored;
}

std::vector<std::string> HelperSettingsPersistence::mergeNewDefaults() {
  MutexLock lock(lock_);
  loadLocked();
  if (loadFailureDescription_ || !cached_) return {};
  auto [merged, added] = cached_->mergingNewDefaults();
  if (merged == *cached_) return {};
  cached_ = std::move(merged);
  try {
    write(*cached_);
  } catch (const std::exception& failure) {
    log_.error("could not persist newly-shipped default exclusions; will retry on the next launch: " +
               asError(failure).description());
  }
  return std::move(added);
}

std::optional<std::string> HelperSettingsPersistence::loadFailureDescription() {
  MutexLock lock(lock_);
  loadLocked();
  return loadFailureDescription_;
}

void HelperSettingsPersistence::loadLocked() {
  if (loaded_) return;
  loaded_ = true;
  cached_ = HelperSettings();
  try {
    if (const auto text = file_.read()) cached_ = decodeJson<HelperSettings>(*text).normalized();
  } catch (const std::exception& failure) {
    loadFailureDescription_ = asError(failure).description();
    log_.error("Helper settings store is unreadable; automatic deletion disabled: " + *loadFailureDescription_);
  }
}

void HelperSettingsPersistence::write(const HelperSettings& settings) const {
  file_.secureDirectory();
  file_.replace(encodeJson(settings));
}

}  // namespace quillmark
