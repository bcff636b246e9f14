#include "service/CommandRun.h"

#include "base/HelperLog.h"
#include "journal/AuditTrail.h"
#include "platform/dispatch.h"
#include "platform/random.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "wire/QuillmarkError.h"

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

void CommandRun::replyNumber(std::int64_t value) { send({std::to_string(value), std::nullopt}); }

void CommandRun::replyData(std::string json) { send({std::move(json), std::nullopt}); }

void CommandRun::send(RpcReply reply) {
  if (!send_) return;
  Send once = std::move(send_);
  send_ = nullptr;
  once(std::move(reply));
}

HelperEvent CommandRun::makeEvent(std::string detail) {
  const Platform& platform = environment().platform;
  HelperEvent event;
  event.id = platform.random.uuid().upper();
  event.timestamp = platform.clock.now();
  event.kind = draft_->kind;
  event.client = service_.client();
  event.user = service_.user();
  event.volumeName = draft_->volumeName;
  event.volumeUUID = draft_->volumeUUID;
  event.snapshotName = draft_->snapshotName;
  event.detail = std::move(detail);
  event.durationMs = (platform.clock.monotonic() - started_).count() / 1'000'000;
  return event;
}

std::optional<Error> CommandRun::recordSuccess(std::string detail) {
  if (!environment().audit) return std::nullopt;
  HelperEvent event = makeEvent(std::move(detail));
  event.succeeded = true;
  const std::optional<Error> failure = environment().audit->append(event);
  if (!failure) return std::nullopt;
  return QuillmarkError::auditNotPersisted(draft_->operation, *failure);
}

void CommandRun::recordFailure(const Error& error) {
  if (!environment().audit) return;
  if (draft_->volumeName.empty() && !draft_->volumeUUID.empty()) {
    try {
      draft_->volumeName = service_.apfs().resolveVolume(draft_->volumeUUID).name;
    } catch (const std::exception&) {
      // The name stays empty.
    }
  }
  HelperEvent event = makeEvent(draft_->failureDetail);
  event.errorMessage = error.description();
  (void)environment().audit->append(event);
}

void CommandRun::fail(const Error& error) {
  environment().log.error(command_ + " failed: " + error.description());
  if (!send_) return;  // answered already: what failed came after the command
  if (draft_) recordFailure(error);
  send({std::nullopt, error});
}

}  // namespace quillmark
