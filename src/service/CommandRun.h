// CommandRun: one command from its queue to its reply. Handlers throw; the one failure exit logs, records and replies.
// Threads: confined to the thread that runs the command.
#pragma once

#include <optional>
#include <string>

#include "base/FunctionRef.h"
#include "base/UniqueFunction.h"
#include "service/AuditAttempt.h"
#include "wire/Rpc.h"

namespace quillmark {

class HelperEnvironment;
class HelperService;

class CommandRun final {
 public:
  using Send = UniqueFunction<void(RpcReply)>;
  CommandRun(HelperService& service, std::string_view command, Send send);

  [[nodiscard]] HelperService& service() { return service_; }
  [[nodiscard]] HelperEnvironment& environment();

  // Each replies, once; what follows is work that the client needn't wait for.
  void replyNothing(std::optional<Error> followUpFailure = {});
  void replyString(const std::string& value, std::optional<Error> followUpFailure = {});
  void replyBoolean(bool value);
  void replyNumber(std::int64_t value);
  // A JSON payload.
  void replyData(std::string json);

  // Marks the command as audited: a failure from here on writes a failed record.
  AuditAttempt& audit(AuditDraft draft) { return attempt_.emplace(service_, started_, std::move(draft)); }
  // One item of a batch, which is an attempt of its own. Its failure is logged behind the words, recorded and answered,
  // and stops nothing.
  [[nodiscard]] std::optional<std::string> item(const std::string& failureWords, AuditDraft draft,
                                                FunctionRef<void(AuditAttempt&)> work);

  // For a client that isn't let in: answers, and leaves no trace but the entry line.
  void refuse(const Error& error);
  // The failure exit.
  void fail(const Error& error);

 private:
  void send(RpcReply reply);

  HelperService& service_;
  const std::string command_;
  Send send_;
  const MonotonicTime started_;
  std::optional<AuditAttempt> attempt_;
};

}  // namespace quillmark
