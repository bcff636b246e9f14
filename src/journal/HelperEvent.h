// HelperEvent: one record of the audit trail, what happened to snapshots and files. JSON: wire/Json.h, ISO 8601 dates.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Date.h"

namespace quillmark {

struct HelperEvent {
  enum class Kind {
    createSnapshot,
    deleteSnapshot,
    mountSnapshot,
    unmountSnapshot,
    diffSnapshots,
    indexSnapshot,
    setProtection,
    setTag,
    restoreFile,
    monitorAlarm,
  };
  // Who asked. helper is the service itself; unknown is never let in.
  enum class Client { gui, cli, helper, finderSync, unknown };

  static constexpr std::array allKinds{
      Kind::createSnapshot, Kind::deleteSnapshot, Kind::mountSnapshot, Kind::unmountSnapshot, Kind::diffSnapshots,
      Kind::indexSnapshot,  Kind::setProtection,  Kind::setTag,        Kind::restoreFile,     Kind::monitorAlarm};
  static constexpr std::array allClients{Client::gui, Client::cli, Client::helper, Client::finderSync, Client::unknown};

  std::string id;  // a UUID
  Date timestamp;
  Kind kind = Kind::createSnapshot;
  Client client = Client::unknown;
  std::optional<std::string> user;
  std::string volumeName;  // may be empty, as the next
  std::string volumeUUID;
  std::optional<std::string> snapshotName;
  std::string detail;
  bool succeeded = false;
  std::optional<std::string> errorMessage;
  std::int64_t durationMs = 0;
  bool operator==(const HelperEvent&) const = default;
};

// As it stands in JSON.
[[nodiscard]] std::string_view word(HelperEvent::Kind kind);
[[nodiscard]] std::string_view word(HelperEvent::Client client);
// As people read it.
[[nodiscard]] std::string_view label(HelperEvent::Kind kind);
[[nodiscard]] std::string_view label(HelperEvent::Client client);

}  // namespace quillmark
