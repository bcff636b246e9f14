// HelperNotifications: the one place through which messages for people go out: to the log, to clients, to email.
//
//   HelperNotifications notices(dispatch, random, posix, platformLog, helperLog, paths, push);
//   if (notices.isActive(key)) notices.resolve(key, "Free space recovered", "...");
//
// Ownership: borrows the facilities and the email, which must outlive it.
// Threads:   thread-safe; deliver waits for the log's disk, outside the lock. Pushes go out on the calling thread.
// Errors:    none; whichever way is closed, the others are used.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "base/Date.h"
#include "journal/HelperNotification.h"
#include "journal/JSONLinesLog.h"
#include "notifications/NotificationStateFile.h"
#include "platform/sync.h"

namespace quillmark {

class Dispatch;
class EmailOffer;
class HelperLog;
class PlatformLog;
class Posix;
class Random;

using NotificationLog = JSONLinesLog<HelperNotification>;

class HelperNotifications final {
 public:
  // Takes a notification as JSON.
  using Push = std::function<void(const std::string& json)>;

  HelperNotifications(Dispatch& dispatch, Random& random, Posix& posix, PlatformLog& platformLog, HelperLog& helperLog,
                      const HostPaths& paths, Push push);

  // Before anything is delivered; without one nothing is mailed.
  void setEmail(EmailOffer* email) { email_ = email; }

  // Unless its key was posted within its cooldown.
  void post(const HelperNotification& notification) EXCLUDES(lock_);
  // Each time.
  void deliver(const HelperNotification& notification);
  // Forgets the key, so that the condition is announced at once when it returns, and delivers its end.
  void resolve(const std::string& key, const std::string& title, const std::string& message) EXCLUDES(lock_);
  // The same, unless the key isn't active: of several who find a condition over, one says so.
  void resolveIfActive(const std::string& key, const std::string& title, const std::string& message) EXCLUDES(lock_);
  // True while the key was posted and not resolved.
  [[nodiscard]] bool isActive(const std::string& key) EXCLUDES(lock_);
  // To email alone.
  void offer(const HelperNotification& notification);

 private:
  // True when it was active.
  bool forget(const std::string& key) EXCLUDES(lock_);
  void deliverResolution(const std::string& key, const std::string& title, const std::string& message);
  void loadLocked() REQUIRES(lock_);
  void saveLocked() REQUIRES(lock_);
  // Notes that the key is posted now; false within the cooldown.
  [[nodiscard]] bool notePosted(const std::string& key, Seconds cooldown) EXCLUDES(lock_);

  Clock& clock_;
  Random& random_;
  HelperLog& helperLog_;
  const Push push_;
  const NotificationStateFile file_;
  EmailOffer* email_ = nullptr;

  NotificationLog log_;

  Mutex lock_;
  NotificationStateFile::DatesByKey lastPostedByKey_ GUARDED_BY(lock_);
  bool stateLoaded_ GUARDED_BY(lock_) = false;
};

}  // namespace quillmark
