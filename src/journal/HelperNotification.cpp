#include "journal/HelperNotification.h"

#include "base/Uuid.h"
#include "wire/RecordCoding.h"

namespace quillmark {

template <>
struct CaseNames<HelperNotification::Kind> {
  using enum HelperNotification::Kind;
  static constexpr std::array names{std::pair{post, "post"}, std::pair{resolve, "resolve"}};
};

template <>
struct CaseNames<NotificationImportance> {
  using enum NotificationImportance;
  static constexpr std::array names{std::pair{normal, "normal"}, std::pair{critical, "critical"}};
};

template <>
struct CaseNames<NotificationCategory> {
  using enum NotificationCategory;
  static constexpr std::array names{std::pair{massChange, "massChange"},
                                    std::pair{lowSpaceEarly, "lowSpaceEarly"},
                                    std::pair{lowSpace, "lowSpace"},
                                    std::pair{storageAdvice, "storageAdvice"},
                                    std::pair{prune, "prune"},
                                    std::pair{discovered, "discovered"},
                                    std::pair{leftMounted, "leftMounted"},
                                    std::pair{failure, "failure"},
                                    std::pair{success, "success"},
                                    std::pair{info, "info"}};
};

namespace {

template <class Enumeration>
std::string_view nameOf(Enumeration value) {
  return CaseNames<Enumeration>::names[static_cast<std::size_t>(value)].second;
}

template <class Enumeration>
Enumeration valueOf(std::string_view name, Enumeration otherwise) {
  for (const auto& [value, known] : CaseNames<Enumeration>::names) {
    if (name == known) return value;
  }
  return otherwise;
}

// A word that nobody knows leaves the field's default.
template <class Enumeration>
void lenientWord(auto& field, std::string_view key, Enumeration& value) {
  std::string name(nameOf(value));
  field.lenient(key, name);
  if constexpr (!std::is_const_v<Enumeration>) value = valueOf(name, value);
}

}  // namespace

std::string_view word(HelperNotification::Kind kind) { return nameOf(kind); }
std::string_view word(NotificationCategory category) { return nameOf(category); }
std::string_view word(NotificationImportance importance) { return nameOf(importance); }

template <>
struct Description<HelperNotification> {
  static constexpr DateStyle dateStyle = DateStyle::iso8601;
  static void fields(auto& field, auto& notification) {
    field("id", notification.id);
    if constexpr (!std::is_const_v<std::remove_reference_t<decltype(notification)>>) {
      if (!Uuid::parse(notification.id)) throw malformedJson("$.id", "is no UUID");
    }
    field("timestamp", notification.timestamp);
    lenientWord(field, "kind", notification.kind);
    field.lenient("title", notification.title);
    field.lenient("message", notification.message);
    lenientWord(field, "category", notification.category);
    lenientWord(field, "importance", notification.importance);
    field("volumeUUID", notification.volumeUUID);
    field("volumeName", notification.volumeName);
    field("deepLink", notification.deepLink);
    field("dedupeKey", notification.dedupeKey);
    field("cooldown", notification.cooldown);
    field.lenient("emailable", notification.emailable);
  }
};

}  // namespace quillmark

QUILLMARK_RECORD(quillmark::HelperNotification)
