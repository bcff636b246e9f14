#include "service/HelperService.h"

#include "base/HelperLog.h"
#include "platform/Transport.h"
#include "platform/random.h"
#include "service/CommandHandlers.h"
#include "service/HelperEnvironment.h"
#include "snapshots/LogNames.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

// Width of the connection's concurrent queues, so that one client can't take all threads.
constexpr unsigned connectionQueueWidth = 8;
// Calls of one client under way before its next lines wait unread.
constexpr unsigned mostUnanswered = 256;

std::shared_ptr<Queue> serialQueue(Dispatch& dispatch, const char* name) {
  return dispatch.makeQueue({.label = std::string("com.harrowfern.quillmark.helper.") + name});
}

std::shared_ptr<Queue> concurrentQueue(Dispatch& dispatch, const char* name) {
  return dispatch.makeQueue({.label = std::string("com.harrowfern.quillmark.helper.") + name,
                             .concurrent = true,
                             .width = connectionQueueWidth});
}

}  // namespace

HelperService::HelperService(HelperEnvironment& environment, std::weak_ptr<TransportConnection> connection,
                             ClientIdentity identity)
    : environment_(environment), connection_(std::move(connection)), identity_(std::move(identity)),
      apfs_(environment.snapshots, LogNames::apfs),
      queryQueue_(concurrentQueue(environment.platform.dispatch, "query")),
      mutationQueue_(serialQueue(environment.platform.dispatch, "mutation")),
      mountQueue_(serialQueue(environment.platform.dispatch, "mount")),
      historyQueue_(concurrentQueue(environment.platform.dispatch, "history")),
      shutdownRegistrationID_(environment.platform.random.uuid()), unanswered_(environment.platform.dispatch, 0U) {
  environment_.shutdown.add(shutdownRegistrationID_, {mutationQueue_, mountQueue_, queryQueue_, historyQueue_});
}

HelperService::~HelperService() { environment_.shutdown.remove(shutdownRegistrationID_); }

void HelperService::receive(const std::string& line) {
  auto decoded = decodeCall(line);
  if (const auto* refusal = std::get_if<RpcRefusal>(&decoded)) {
    if (refusal->answered) send(encodeRefusal(*refusal));
    return;
  }
  auto& call = std::get<RpcCall>(decoded);
  if (isExported(*call.command)) return begin(std::move(call));
  if (call.id) {
    send(encodeRefusal(
        {*call.id, RpcFault::methodNotFound, "Unknown selector \"" + std::string(call.command->selector) + "\"."}));
  }
}

bool HelperService::isExported(const CommandSpec& command) const {
  return identity_.client != HelperEvent::Client::finderSync || command.protocols == CommandProtocols::helperAndFinder;
}

void HelperService::begin(RpcCall call) {
  callStarted();
  const CommandSpec& command = *call.command;
  if (const std::string line = entryLine(command, call.arguments); !line.empty()) environment_.log.info(line);
  if (!command.drains) return enqueue(std::move(call));
  const std::optional<std::string> id = call.id;
  if (environment_.shutdown.admit([&] { enqueue(std::move(call)); })) return;
  answer(id, {std::nullopt, QuillmarkError::make(QuillmarkErrorCode::helperRestarting,
                                                 "Quillmark helper is restarting; try again in a moment.")});
}

void HelperService::enqueue(RpcCall call) {
  const CommandSpec& command = *call.command;
  if (command.queue == CommandQueue::delivery) return run(command, call.arguments, call.id);
  queueOf(command.queue)->async([weak = weak_from_this(), call = std::move(call)] {
    if (const auto self = weak.lock()) self->run(*call.command, call.arguments, call.id);
  });
}

void HelperService::run(const CommandSpec& command, const ArgumentValues& arguments,
                        const std::optional<std::string>& id) {
  CommandRun commandRun(*this, command.word(), [this, &id](RpcReply reply) { answer(id, reply); });
  handlerOf(command.selector)(commandRun, arguments);
}

std::shared_ptr<Queue> HelperService::queueOf(CommandQueue queue) const {
  switch (queue) {
    case CommandQueue::query: return queryQueue_;
    case CommandQueue::mutation: return mutationQueue_;
    case CommandQueue::mount: return mountQueue_;
    case CommandQueue::history: return historyQueue_;
    case CommandQueue::delivery:
    case CommandQueue::globalUserInitiated: break;
  }
  return environment_.platform.dispatch.global(QualityOfService::userInitiated);
}

void HelperService::answer(const std::optional<std::string>& id, const RpcReply& reply) {
  if (id) send(encodeReply(*id, reply));
  callEnded();
}

void HelperService::send(std::string line) {
  if (const auto connection = connection_.lock()) connection->send(std::move(line));
}

void HelperService::callStarted() {
  // Under the guard, so that a pause always comes before the resume that ends it.
  unanswered_.with([&](unsigned& count) {
    const auto connection = ++count == mostUnanswered ? connection_.lock() : nullptr;
    if (connection) connection->pauseReading();
  });
}

void HelperService::callEnded() {
  unanswered_.with([&](unsigned& count) {
    const auto connection = count-- == mostUnanswered ? connection_.lock() : nullptr;
    if (connection) connection->resumeReading();
  });
}

}  // namespace quillmark
