// CommandRun: one command from its queue to its reply. Handlers throw; the one failure exit logs, records and replies.
// Threads: confined to the thread that runs the command.
#pragma once

#include <optional>
#include <string>

#include "base/UniqueFunction.h"
#include "journal/HelperEvent.h"
#include "platform/clock.h"
#include "wire/Rpc.h"

namespace quillmark {

class HelperEnvironment;
class HelperService;

// What the audit record of a command will say, filled as the command learns it.
struct AuditDraft {
  HelperEvent::Kind kind;
  std::string operation;  // the audit word: "createSnapshot"
  std::string volumeUUID;
  std::string volumeName;  // empty until the volume is resolved
  std::optional<std::string> snapshotName;
  std::string failureDetail;  // the record's detail when the command fails
};

class CommandRun final {
 public:
  using Send = UniqueFunction<void(RpcReply)>;
  CommandRun(HelperService& service, std::string_view command, Send send);

  [[nodiscard]] HelperService& service() { return service_; }
  [[nodiscard]] HelperEnvironment& environment();

  // Each replies, once; what follows is work that the client needn't wait for.
  void replyNothing(std::optional<Error> followUpFailure = {});
  void replyString(const std::string& value, std::optional<Error> followUpFailure = {});
  void replyNumber(std::int64_t value);
  // A JSON payload.
  void replyData(std::string json);

  // Marks the command as audited: a failure from here on writes a failed record.
  void audit(AuditDraft draft) { draft_ = std::move(draft); }
  [[nodiscard]] AuditDraft& draft() { return *draft_; }
  // Writes the record of success; the error that a reply then carries when it could not be stored.
  [[nodiscard]] std::optional<Error> recordSuccess(std::string detail);

  // The failure exit.
  void fail(const Error& error);

 private:
  [[nodiscard]] HelperEvent makeEvent(std::string detail);
  void recordFailure(const Error& error);
  void send(RpcReply reply);

  HelperService& service_;
  const std::string command_;
  Send send_;
  const MonotonicTime started_;
  std::optional<AuditDraft> draft_;
};

}  // namespace quillmark
