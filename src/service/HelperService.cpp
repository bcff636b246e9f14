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
constexpr std::size_t mostUnansweredBytes = 8 * 1024 * 1024;

std::shared_ptr<Queue> serialQueue(Dispatch& dispatch, const char* name) {
  return dispatch.makeQueue({.label = std::string("com.harrowfern.quillmark.helper.") + name});
}

std::shared_ptr<Queue> concurrentQueue(Dispatch& dispatch, const char* name) {
  return dispatch.makeQueue({.label = std::string("com.harrowfern.quillmark.helper.") + name,
                             .concurrent = true,
                             .width = connectionQueueWidth});
}

ConnectionProtocol protocolOf(HelperEvent::Client client) {
  return client == HelperEvent::Client::finderSync ? ConnectionProtocol::finder : ConnectionProtocol::helper;
}

std::shared_ptr<const void> placeOf(const std::weak_ptr<TransportConnection>& connection) {
  const auto alive = connection.lock();
  return alive ? alive->userPlace() : nullptr;
}

}  // namespace

bool HelperService::Unanswered::tooMany() const { return count >= mostUnanswered || bytes > mostUnansweredBytes; }

HelperService::HelperService(HelperEnvironment& environment, std::weak_ptr<TransportConnection> connection,
                             ClientIdentity identity)
    : environment_(environment), connection_(std::move(connection)), identity_(std::move(identity)),
      apfs_(environment.snapshots, LogNames::apfs),
      queryQueue_(concurrentQueue(environment.platform.dispatch, "query")),
      mutationQueue_(serialQueue(environment.platform.dispatch, "mutation")),
      mountQueue_(serialQueue(environment.platform.dispatch, "mount")),
      historyQueue_(concurrentQueue(environment.platform.dispatch, "history")),
      shutdownRegistrationID_(environment.platform.random.uuid()), userPlace_(placeOf(connection_)),
      unanswered_(environment.platform.dispatch) {
  environment_.shutdown.add(shutdownRegistrationID_, {mutationQueue_, mountQueue_, queryQueue_, historyQueue_});
}

HelperService::~HelperService() { environment_.shutdown.remove(shutdownRegistrationID_); }

PeerUser HelperService::requirePeer() const {
  if (identity_.peerUID) return {*identity_.peerUID, identity_.groups};
  throw QuillmarkError::make(QuillmarkErrorCode::internalError,
                             "Could not securely resolve the requesting user's identity");
}

void HelperService::receive(const std::string& line) {
  auto decoded = decodeCall(line, protocolOf(identity_.client));
  if (auto* call = std::get_if<RpcCall>(&decoded)) return begin(std::move(*call), line.size());
  const auto& refusal = std::get<RpcRefusal>(decoded);
  if (refusal.answered) send(encodeRefusal(refusal));
}

void HelperService::begin(RpcCall call, std::size_t bytes) {
  callStarted(bytes);
  const CommandSpec& command = *call.command;
  if (const std::string line = entryLine(command, call.arguments); !line.empty()) environment_.log.info(line);
  if (!command.drains) return enqueue(std::move(call), bytes);
  if (environment_.shutdown.admit([&] { enqueue(std::move(call), bytes); })) return;
  answer(call, bytes,
         {std::nullopt, QuillmarkError::make(QuillmarkErrorCode::helperRestarting,
                                             "Quillmark helper is restarting; try again in a moment.")});
}

void HelperService::enqueue(RpcCall call, std::size_t bytes) {
  const CommandSpec& command = *call.command;
  if (command.queue == CommandQueue::delivery) return run(call, bytes);
  queueOf(command.queue)->async([weak = weak_from_this(), call = std::move(call), bytes] {
    // Also alive while another of its commands still runs for a client that has gone.
    const auto self = weak.lock();
    if (self && !self->connection_.expired()) self->run(call, bytes);
  });
}

void HelperService::run(const RpcCall& call, std::size_t bytes) {
  CommandRun commandRun(*this, call.command->word(), [&, this](RpcReply reply) { answer(call, bytes, reply); });
  handlerOf(call.command->selector)(commandRun, call.arguments);
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

void HelperService::answer(const RpcCall& call, std::size_t bytes, const RpcReply& reply) {
  if (call.id) send(encodeReply(*call.id, reply));
  callEnded(bytes);
}

void HelperService::send(std::string line) {
  if (const auto connection = connection_.lock()) connection->send(std::move(line));
}

// Under the guard, so that a pause always comes before the resume that ends it.
void HelperService::callStarted(std::size_t bytes) {
  unanswered_.with([&](Unanswered& calls) {
    ++calls.count;
    calls.bytes += bytes;
    if (calls.paused || !calls.tooMany()) return;
    calls.paused = true;
    if (const auto connection = connection_.lock()) connection->pauseReading();
  });
}

void HelperService::callEnded(std::size_t bytes) {
  unanswered_.with([&](Unanswered& calls) {
    --calls.count;
    calls.bytes -= bytes;
    if (!calls.paused || calls.tooMany()) return;
    calls.paused = false;
    if (const auto connection = connection_.lock()) connection->resumeReading();
  });
}

}  // namespace quillmark
