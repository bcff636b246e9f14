#include "service/CommandRun.h"

#include "base/HelperLog.h"
#include "platform/dispatch.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"

namespace quillmark {

CommandRun::CommandRun(HelperService& service, std::string_view command, Send send)
    : service_(service), command_(command), send_(std::move(send)),
      started_(service.environment().platform.clock.monotonic()) {}

HelperEnvironment& CommandRun::environment() { return service_.environment(); }

void CommandRun::replyNothing(std::optional<Error> followUpFailure) {
  send({std::nullopt, std::move(followUpFailure)});
}

void CommandRun::replyString(const std::string& value, std::optional<Error> followUpFailure) {
  send({jsonString(value), std::move(followUpFailure)});
}

void CommandRun::replyBoolean(bool value) { send({value ? "true" : "false", std::nullopt}); }

void CommandRun::replyNumber(std::int64_t value) { send({std::to_string(value), std::nullopt}); }

void CommandRun::replyData(std::string json) { send({std::move(json), std::nullopt}); }

void CommandRun::send(RpcReply reply) {
  if (!send_) return;
  Send once = std::move(send_);
  send_ = nullptr;
  once(std::move(reply));
}

std::optional<std::string> CommandRun::item(const std::string& failureWords, AuditDraft draft,
                                            FunctionRef<void(AuditAttempt&)> work) {
  AuditAttempt attempt(service_, environment().platform.clock.monotonic(), std::move(draft));
  try {
    work(attempt);
    return std::nullopt;
  } catch (const std::exception& exception) {
    const Error error = asError(exception);
    environment().log.error(failureWords + ": " + error.description());
    attempt.failed(error);
    return error.description();
  }
}

void CommandRun::refuse(const Error& error) { send({std::nullopt, error}); }

void CommandRun::fail(const Error& error) {
  environment().log.error(command_ + " failed: " + error.description());
  if (!send_) return;  // answered already: what failed came after the command
  if (attempt_) attempt_->failed(error);
  send({std::nullopt, error});
}

}  // namespace quillmark
