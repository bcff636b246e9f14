// Failures as quill ends on them: its own errors, and the exit code, name, advice and JSON form of every error.
// Threads: pure.
#pragma once

#include <string>
#include <string_view>

#include "base/Error.h"

namespace quillmark::cli {

enum ExitCode : int {
  exitDone = 0,
  exitFailed = 1,
  exitWrongUse = 2,
  exitNotReachable = 3,
  exitRefused = 4,
  exitInterrupted = 130,  // as shells call an end by SIGINT
};

// Errors that quill makes itself.
inline constexpr std::string_view clientErrorDomain = "com.harrowfern.quillmark.cli.Error";
enum class ClientFault : long {
  wrongUse = 1,
  helperNotReachable = 2,
  answerLost = 3,  // the request was sent: whether it was done isn't known
  answerMalformed = 4,
  outputFailed = 5,
  declined = 6,  // by the person, when asked
  logUnreadable = 7,
  notIndexed = 8,  // a snapshot whose index was waited for
};
[[nodiscard]] Error clientError(ClientFault fault, std::string message, std::string suggestion = {});
[[nodiscard]] Error wrongUse(std::string message, std::string suggestion = {});

// Errors by which the helper says that a call is malformed; the codes are JSON-RPC's.
inline constexpr std::string_view rpcErrorDomain = "JSON-RPC";
// Errors of the helper's change history.
inline constexpr std::string_view historyErrorDomain = "Quillmark.SnapshotHistory";

[[nodiscard]] ExitCode exitCodeOf(const Error& error);
// "protectedSnapshot", "ENOENT", "methodNotFound"; "other" for a code of a domain that isn't known.
[[nodiscard]] std::string nameOf(const Error& error);
// What the person can do: the error's own suggestion, else what its code suggests; may be empty.
[[nodiscard]] std::string adviceOn(const Error& error);
// {"domain":…,"code":…,"name":…,"message":…} with "recoverySuggestion" and "completed" where they apply.
[[nodiscard]] std::string errorJson(const Error& error);

}  // namespace quillmark::cli
