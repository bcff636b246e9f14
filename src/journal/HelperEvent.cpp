#include "journal/HelperEvent.h"

#include "wire/RecordCoding.h"

namespace quillmark {

template <>
struct CaseNames<HelperEvent::Kind> {
  using enum HelperEvent::Kind;
  static constexpr std::array names{
      std::pair{createSnapshot, "createSnapshot"}, std::pair{deleteSnapshot, "deleteSnapshot"},
      std::pair{mountSnapshot, "mountSnapshot"},   std::pair{unmountSnapshot, "unmountSnapshot"},
      std::pair{diffSnapshots, "diffSnapshots"},   std::pair{indexSnapshot, "indexSnapshot"},
      std::pair{setProtection, "setProtection"},   std::pair{setTag, "setTag"},
      std::pair{restoreFile, "restoreFile"},       std::pair{monitorAlarm, "monitorAlarm"}};
};

template <>
struct CaseNames<HelperEvent::Client> {
  using enum HelperEvent::Client;
  static constexpr std::array names{std::pair{gui, "gui"}, std::pair{cli, "cli"}, std::pair{helper, "helper"},
                                    std::pair{finderSync, "finderSync"}, std::pair{unknown, "unknown"}};
};

std::string_view word(HelperEvent::Kind kind) {
  return CaseNames<HelperEvent::Kind>::names[static_cast<std::size_t>(kind)].second;
}

std::string_view word(HelperEvent::Client client) {
  return CaseNames<HelperEvent::Client>::names[static_cast<std::size_t>(client)].second;
}

std::string_view label(HelperEvent::Kind kind) {
  static constexpr std::array labels{
      "Snapshot Created", "Snapshot Deleted",   "Snapshot Mounted", "Snapshot Unmounted", "Snapshots Compared",
      "Snapshot Indexed", "Protection Changed", "Tag Changed",      "File Restored",      "Mass Change Detected"};
  static_assert(labels.size() == HelperEvent::allKinds.size());
  return labels[static_cast<std::size_t>(kind)];
}

std::string_view label(HelperEvent::Client client) {
  static constexpr std::array labels{"GUI", "CLI", "Helper", "Finder", "Other"};
  static_assert(labels.size() == HelperEvent::allClients.size());
  return labels[static_cast<std::size_t>(client)];
}

template <>
struct Description<HelperEvent> {
  static constexpr DateStyle dateStyle = DateStyle::iso8601;
  static void fields(auto& field, auto& event) {
    field("id", event.id);
    field("timestamp", event.timestamp);
    field("kind", event.kind);
    field("client", event.client);
    field("user", event.user);
    field("volumeName", event.volumeName);
    field("volumeUUID", event.volumeUUID);
    field("snapshotName", event.snapshotName);
    field("detail", event.detail);
    field("succeeded", event.succeeded);
    field("errorMessage", event.errorMessage);
    field("durationMs", event.durationMs);
  }
};

}  // namespace quillmark

QUILLMARK_RECORD(quillmark::HelperEvent)
