// QuillmarkError: makes the one kind of failure that the service itself answers with.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/Error.h"

namespace quillmark {

enum class QuillmarkErrorCode : long {
  invalidVolumeUUID = 1001,
  invalidLabel = 1002,
  invalidSnapshotUUID = 1003,
  invalidMountPath = 1004,
  volumeNotFound = 1010,
  volumeNotAPFSData = 1011,
  snapshotNotFound = 1020,
  notOurSnapshot = 1021,
  ambiguousSnapshotRef = 1022,
  snapshotCreateFailed = 1030,
  snapshotDeleteFailed = 1031,
  snapshotMountFailed = 1032,
  snapshotListFailed = 1033,
  snapshotUnmountFailed = 1034,
  protectedSnapshot = 1035,
  snapshotInUse = 1036,
  volumeBusy = 1037,
  insufficientPrivileges = 1040,
  protocolVersionMismatch = 1053,  // made by clients only
  helperRestarting = 1060,
  auditPersistenceFailed = 1061,
  internalError = 1099,
};

namespace QuillmarkError {

[[nodiscard]] Error make(QuillmarkErrorCode code, std::string message,
                         std::shared_ptr<const Error> underlying = nullptr);
// The effect is in place, a follow-up step failed: whoever gets this must not repeat the operation.
[[nodiscard]] Error operationCompleted(std::string message, std::shared_ptr<const Error> underlying = nullptr);
// operation is the audit word of the command ("deleteSnapshot").
[[nodiscard]] Error auditNotPersisted(const std::string& operation, const Error& auditFailure);
[[nodiscard]] bool isOperationCompleted(const Error& error);

// The case of a number; internalError for one outside the table.
[[nodiscard]] QuillmarkErrorCode code(long rawValue);
// The case of an error of this domain; absent for another domain's.
[[nodiscard]] std::optional<QuillmarkErrorCode> codeOf(const Error& error);

}  // namespace QuillmarkError
}  // namespace quillmark
