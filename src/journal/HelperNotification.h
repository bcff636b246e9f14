// HelperNotification: a message for people, or the end of what one told of. JSON: wire/Json.h, ISO 8601 dates; lines of
// other versions stay readable: only id and timestamp are required, and words nobody knows read as the defaults.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Date.h"

namespace quillmark {

enum class NotificationImportance { normal, critical };

enum class NotificationCategory {
  massChange,
  lowSpaceEarly,
  lowSpace,
  storageAdvice,
  prune,
  discovered,
  leftMounted,
  failure,
  success,
  info,
};

struct HelperNotification {
  enum class Kind { post, resolve };
  static constexpr Seconds defaultCooldown{1800};

  std::string id;  // a UUID
  Date timestamp;
  Kind kind = Kind::post;
  std::string title;
  std::string message;
  NotificationCategory category = NotificationCategory::info;
  NotificationImportance importance = NotificationImportance::normal;
  std::optional<std::string> volumeUUID;
  std::optional<std::string> volumeName;
  std::optional<std::string> deepLink;
  std::optional<std::string> dedupeKey;  // the condition's; ties a resolve to its post
  std::optional<double> cooldown;        // seconds between posts of one key; absent means the default
  bool emailable = true;
  bool operator==(const HelperNotification&) const = default;
};

[[nodiscard]] std::string_view word(HelperNotification::Kind kind);
[[nodiscard]] std::string_view word(NotificationCategory category);
[[nodiscard]] std::string_view word(NotificationImportance importance);

}  // namespace quillmark
