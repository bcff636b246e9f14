#include "notifications/HelperNotifications.h"

#include <optional>

#include "base/HelperLog.h"
#include "notifications/EmailOffer.h"
#include "platform/clock.h"
#include "platform/random.h"
#include "wire/Json.h"

namespace quillmark {
namespace {

// A key that nobody resolved is forgotten after a week, or they would pile up.
constexpr Seconds longestKept{604'800};

std::optional<std::string> encoded(const HelperNotification& notification) {
  try {
    return encodeJson(notification);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

HelperNotifications::HelperNotifications(Dispatch& dispatch, Random& random, Posix& posix, PlatformLog& platformLog,
                                         HelperLog& helperLog, const HostPaths& paths, Push push)
    : clock_(dispatch.clock()), random_(random), helperLog_(helperLog), push_(std::move(push)),
      file_(posix, random, paths), log_(dispatch, posix, platformLog, notificationLogDescription(paths)),
      lock_(dispatch) {}

void HelperNotifications::post(const HelperNotification& notification) {
  if (notification.dedupeKey) {
    const Seconds cooldown =
        notification.cooldown ? Seconds(*notification.cooldown) : HelperNotification::defaultCooldown;
    if (!notePosted(*notification.dedupeKey, cooldown)) return;
  }
  deliver(notification);
}

bool HelperNotifications::notePosted(const std::string& key, Seconds cooldown) {
  MutexLock lock(lock_);
  loadLocked();
  const Date now = clock_.now();
  const auto [entry, isNew] = lastPostedByKey_.try_emplace(key, now);
  // A date ahead of a clock that was set back holds nothing back.
  if (!isNew && now >= entry->second && now - entry->second < cooldown) return false;
  entry->second = now;
  saveLocked();
  return true;
}

void HelperNotifications::deliver(const HelperNotification& notification) {
  if (const std::optional<Error> failure = log_.append(notification)) {
    helperLog_.error("notification log append failed: " + failure->description());
  }
  if (push_) {
    if (const auto json = encoded(notification)) push_(*json);
  }
  offer(notification);
}

void HelperNotifications::resolve(const std::string& key, const std::string& title, const std::string& message) {
  forget(key);
  deliverResolution(key, title, message);
}

void HelperNotifications::resolveIfActive(const std::string& key, const std::string& title,
                                          const std::string& message) {
  if (forget(key)) deliverResolution(key, title, message);
}

bool HelperNotifications::forget(const std::string& key) {
  MutexLock lock(lock_);
  loadLocked();
  const bool wasActive = lastPostedByKey_.erase(key) > 0;
  saveLocked();
  return wasActive;
}

void HelperNotifications::deliverResolution(const std::string& key, const std::string& title,
                                            const std::string& message) {
  HelperNotification resolution;
  resolution.id = random_.uuid().upper();
  resolution.timestamp = clock_.now();
  resolution.kind = HelperNotification::Kind::resolve;
  resolution.title = title;
  resolution.message = message;
  resolution.category = NotificationCategory::success;
  resolution.dedupeKey = key;
  deliver(resolution);
}

bool HelperNotifications::isActive(const std::string& key) {
  MutexLock lock(lock_);
  loadLocked();
  return lastPostedByKey_.contains(key);
}

void HelperNotifications::offer(const HelperNotification& notification) {
  if (email_) email_->offer(notification);
}

void HelperNotifications::loadLocked() {
  if (stateLoaded_) return;
  stateLoaded_ = true;
  lastPostedByKey_ = file_.load();
}

void HelperNotifications::saveLocked() {
  const Date now = clock_.now();
  std::erase_if(lastPostedByKey_, [now](const auto& entry) { return now - entry.second > longestKept; });
  file_.save(lastPostedByKey_);
}

}  // namespace quillmark
