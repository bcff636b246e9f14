#include "wire/QuillmarkError.h"

#include <array>

#include "wire/QuillmarkXPC.h"

namespace quillmark::QuillmarkError {
namespace {

using enum QuillmarkErrorCode;

constexpr std::array allCodes{
    invalidVolumeUUID,      invalidLabel,        invalidSnapshotUUID,    invalidMountPath,        volumeNotFound,
    volumeNotAPFSData,      snapshotNotFound,    notOurSnapshot,         ambiguousSnapshotRef,    snapshotCreateFailed,
    snapshotDeleteFailed,   snapshotMountFailed, snapshotListFailed,     snapshotUnmountFailed,   protectedSnapshot,
    snapshotInUse,          volumeBusy,          insufficientPrivileges, protocolVersionMismatch, helperRestarting,
    auditPersistenceFailed, internalError};

}  // namespace

Error make(QuillmarkErrorCode code, std::string message, std::shared_ptr<const Error> underlying) {
  return Error(std::string(QuillmarkXPC::errorDomain), static_cast<long>(code), std::move(message),
               std::move(underlying));
}

Error operationCompleted(std::string message, std::shared_ptr<const Error> underlying) {
  return make(auditPersistenceFailed, std::move(message), std::move(underlying))
      .withRecoverySuggestion(
          "The operation already completed. Do not retry it; export diagnostics and check available disk space.")
      .asOperationCompleted();
}

Error auditNotPersisted(const std::string& operation, const Error& auditFailure) {
  return operationCompleted(
      "The " + operation +
          " operation completed, but Quillmark could not persist its audit record: " + auditFailure.description(),
      std::make_shared<const Error>(auditFailure));
}

bool isOperationCompleted(const Error& error) {
  return error.domain() == QuillmarkXPC::errorDomain && error.code() == static_cast<long>(auditPersistenceFailed) &&
         error.operationCompleted();
}

QuillmarkErrorCode code(long rawValue) {
  for (const QuillmarkErrorCode known : allCodes) {
    if (static_cast<long>(known) == rawValue) return known;
  }
  return internalError;
}

std::optional<QuillmarkErrorCode> codeOf(const Error& error) {
  if (error.domain() != QuillmarkXPC::errorDomain) return std::nullopt;
  return code(error.code());
}

}  // namespace quillmark::QuillmarkError
