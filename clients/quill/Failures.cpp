#include "quill/Failures.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "wire/QuillmarkError.h"
#include "wire/QuillmarkXPC.h"
#include "wire/Rpc.h"

namespace quillmark::cli {
namespace {

struct CodeFacts {
  long code;
  std::string_view name;
  ExitCode exit = exitFailed;
  std::string_view advice = {};
};

constexpr CodeFacts of(QuillmarkErrorCode code, std::string_view name, ExitCode exit = exitFailed,
                       std::string_view advice = {}) {
  return {static_cast<long>(code), name, exit, advice};
}

using enum QuillmarkErrorCode;
constexpr std::array serviceCodes{
    of(invalidVolumeUUID, "invalidVolumeUUID", exitWrongUse),
    of(invalidLabel, "invalidLabel", exitWrongUse),
    of(invalidSnapshotUUID, "invalidSnapshotUUID", exitWrongUse),
    of(invalidMountPath, "invalidMountPath", exitWrongUse),
    of(volumeNotFound, "volumeNotFound", exitFailed, "See the volumes of this machine with: quill volumes"),
    of(volumeNotAPFSData, "volumeNotAPFSData", exitRefused),
    of(snapshotNotFound, "snapshotNotFound", exitFailed, "See the snapshots of a volume with: quill list"),
    of(notOurSnapshot, "notOurSnapshot", exitRefused),
    of(ambiguousSnapshotRef, "ambiguousSnapshotRef", exitWrongUse),
    of(snapshotCreateFailed, "snapshotCreateFailed"),
    of(snapshotDeleteFailed, "snapshotDeleteFailed", exitFailed, "If it is mounted: quill unmount"),
    of(snapshotMountFailed, "snapshotMountFailed"),
    of(snapshotListFailed, "snapshotListFailed"),
    of(snapshotUnmountFailed, "snapshotUnmountFailed"),
    of(protectedSnapshot, "protectedSnapshot", exitRefused,
       "To take the protection away: quill unprotect. To delete it all the same: quill delete --force"),
    of(snapshotInUse, "snapshotInUse", exitRefused),
    of(volumeBusy, "volumeBusy"),
    of(insufficientPrivileges, "insufficientPrivileges", exitRefused),
    of(protocolVersionMismatch, "protocolVersionMismatch"),
    of(helperRestarting, "helperRestarting", exitRefused),
    of(auditPersistenceFailed, "auditPersistenceFailed"),
    of(internalError, "internalError"),
};

constexpr std::array clientCodes{
    CodeFacts{static_cast<long>(ClientFault::wrongUse), "wrongUse", exitWrongUse},
    CodeFacts{static_cast<long>(ClientFault::helperNotReachable), "helperNotReachable", exitNotReachable},
    CodeFacts{static_cast<long>(ClientFault::answerLost), "answerLost", exitNotReachable},
    CodeFacts{static_cast<long>(ClientFault::answerMalformed), "answerMalformed"},
    CodeFacts{static_cast<long>(ClientFault::outputFailed), "outputFailed"},
    CodeFacts{static_cast<long>(ClientFault::declined), "declined"},
    CodeFacts{static_cast<long>(ClientFault::logUnreadable), "logUnreadable"},
    CodeFacts{static_cast<long>(ClientFault::notIndexed), "notIndexed"},
};

// The helper's texts for people; they call it "Re-index Snapshots".
constexpr std::array historyCodes{
    CodeFacts{20, "snapshotHistory", exitFailed, "To build the index of a whole volume anew: quill index rebuild"},
};

constexpr std::array rpcCodes{
    CodeFacts{static_cast<long>(RpcFault::parseError), "parseError", exitWrongUse},
    CodeFacts{static_cast<long>(RpcFault::invalidRequest), "invalidRequest", exitWrongUse},
    CodeFacts{static_cast<long>(RpcFault::methodNotFound), "methodNotFound", exitWrongUse},
    CodeFacts{static_cast<long>(RpcFault::invalidParams), "invalidParams", exitWrongUse},
};

template <std::size_t count>
const CodeFacts* find(const std::array<CodeFacts, count>& table, long code) {
  const auto found = std::find_if(table.begin(), table.end(), [&](const CodeFacts& row) { return row.code == code; });
  return found == table.end() ? nullptr : &*found;
}

const CodeFacts* factsOf(const Error& error) {
  if (const auto code = QuillmarkError::codeOf(error)) return find(serviceCodes, static_cast<long>(*code));
  if (error.domain() == clientErrorDomain) return find(clientCodes, error.code());
  if (error.domain() == rpcErrorDomain) return find(rpcCodes, error.code());
  if (error.domain() == historyErrorDomain) return find(historyCodes, error.code());
  return nullptr;
}

}  // namespace

Error clientError(ClientFault fault, std::string message, std::string suggestion) {
  return Error(std::string(clientErrorDomain), static_cast<long>(fault), std::move(message))
      .withRecoverySuggestion(std::move(suggestion));
}

Error wrongUse(std::string message, std::string suggestion) {
  return clientError(ClientFault::wrongUse, std::move(message), std::move(suggestion));
}

ExitCode exitCodeOf(const Error& error) {
  if (QuillmarkError::isOperationCompleted(error)) return exitDone;
  const CodeFacts* facts = factsOf(error);
  return facts ? facts->exit : exitFailed;
}

std::string nameOf(const Error& error) {
  if (const CodeFacts* facts = factsOf(error)) return std::string(facts->name);
  const char* symbol = error.domain() == posixErrorDomain ? ::strerrorname_np(static_cast<int>(error.code())) : nullptr;
  return symbol ? symbol : "other";
}

std::string adviceOn(const Error& error) {
  if (!error.recoverySuggestion().empty()) return error.recoverySuggestion();
  const CodeFacts* facts = factsOf(error);
  return facts ? std::string(facts->advice) : std::string();
}

std::string errorJson(const Error& error) {
  std::string text = fmt::format(R"({{"domain":{},"code":{},"name":{},"message":{})", jsonString(error.domain()),
                                 error.code(), jsonString(nameOf(error)), jsonString(error.description()));
  if (!error.recoverySuggestion().empty()) {
    text += ",\"recoverySuggestion\":" + jsonString(error.recoverySuggestion());
  }
  if (error.operationCompleted()) text += ",\"completed\":true";
  return text + "}";
}

}  // namespace quillmark::cli
