#include "quill/HelperConnection.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "platform/clock.h"
#include "quill/Failures.h"
#include "wire/QuillmarkError.h"
#include "wire/QuillmarkXPC.h"

namespace quillmark::cli {
namespace {

// A snapshot waits for all that was written before it: minutes on a slow disk.
constexpr std::chrono::minutes patience{30};
// How long nothing comes before a listener hears of that.
constexpr std::chrono::milliseconds moment{300};

Error notReachable(const Error& cause, const HelperConnection::AdmissionAdvice& advice) {
  const auto says = [&](const std::string& message, std::string suggestion) {
    return clientError(ClientFault::helperNotReachable, message, std::move(suggestion));
  };
  switch (cause.code()) {
    case ENOENT:
    case ENOTDIR:
    case ECONNREFUSED: return says(cause.description(), "Start the helper as root: quillmark-helper");
    case EACCES: return says(cause.description(), advice());
    case EPIPE: return says("The Quillmark helper didn't let you in: it closed the connection.", advice());
    default: return says(cause.description(), {});
  }
}

Error answerLost(const Error& cause) {
  return clientError(ClientFault::answerLost, cause.description(),
                     "Whether the request was carried out isn't known: look before you repeat it.");
}

RpcIncoming understood(const std::string& line) {
  try {
    return decodeIncoming(line);
  } catch (const Error& error) {
    throw clientError(ClientFault::answerMalformed, "The helper's answer can't be understood: " + error.description());
  }
}

Error channelFailed(const Error& cause, bool answered, const HelperConnection::AdmissionAdvice& advice) {
  return answered ? answerLost(cause) : notReachable(cause, advice);
}

}  // namespace

bool booleanValue(const RpcReply& reply) {
  if (reply.valueJson == "true") return true;
  if (reply.valueJson == "false") return false;
  throw clientError(ClientFault::answerMalformed, "The helper's answer is neither true nor false.");
}

HelperConnection::HelperConnection(std::unique_ptr<ClientChannel> channel, Clock& clock, AdmissionAdvice advice)
    : channel_(std::move(channel)), clock_(clock), advice_(std::move(advice)) {}

void HelperConnection::requireSameProtocol() {
  const std::int64_t spoken = call(ProtocolVersion{}).value;
  if (spoken == QuillmarkXPC::protocolVersion) return;
  throw QuillmarkError::make(QuillmarkErrorCode::protocolVersionMismatch,
                             fmt::format("This quill speaks protocol version {}, but the running helper speaks {}.",
                                         QuillmarkXPC::protocolVersion, spoken))
      .withRecoverySuggestion("Install both from one release and restart the helper.");
}

Answer<std::optional<std::string>> HelperConnection::callText(std::string_view selector, std::string_view params) {
  RpcReply reply = exchange(encodeRequestText(++lastId_, selector, params));
  return {std::move(reply.valueJson), std::move(reply.error)};
}

RpcReply HelperConnection::exchange(const std::string& request) {
  RpcIncoming incoming;
  try {
    channel_->send(request);
    incoming = receiveAnswer();
  } catch (const Error& error) {
    if (error.domain() != posixErrorDomain) throw;
    throw channelFailed(error, answered_, advice_);
  }
  answered_ = true;
  if (incoming.kind == RpcIncoming::Kind::refusal) {
    throw Error(std::string(rpcErrorDomain), incoming.refusalCode, std::move(incoming.refusalMessage));
  }
  if (incoming.reply.error && !QuillmarkError::isOperationCompleted(*incoming.reply.error)) {
    throw Error(std::move(*incoming.reply.error));
  }
  return std::move(incoming.reply);
}

RpcIncoming HelperConnection::nextPush() {
  while (true) {
    std::optional<RpcIncoming> incoming = receive(patience);
    if (incoming && incoming->kind == RpcIncoming::Kind::push) return *std::move(incoming);
  }
}

bool HelperConnection::hear(std::chrono::nanoseconds most) {
  const std::optional<RpcIncoming> incoming = receive(most);
  if (!incoming || incoming->kind != RpcIncoming::Kind::push) return false;
  if (listener_) listener_->told(*incoming);
  return true;
}

std::optional<RpcIncoming> HelperConnection::receive(std::chrono::nanoseconds most) {
  try {
    return understood(channel_->receive(most));
  } catch (const Error& error) {
    if (error.domain() != posixErrorDomain) throw;
    if (error.code() == ETIMEDOUT) return std::nullopt;
    throw clientError(ClientFault::helperNotReachable, "The Quillmark helper has ended the connection.");
  }
}

RpcIncoming HelperConnection::receiveAnswer() {
  MonotonicTime deadline = clock_.monotonic() + patience;
  while (true) {
    const std::chrono::nanoseconds left = deadline - clock_.monotonic();
    RpcIncoming incoming;
    try {
      incoming = understood(channel_->receive(listener_ ? std::min<std::chrono::nanoseconds>(left, moment) : left));
    } catch (const Error& error) {
      if (!listener_ || left <= moment || error.domain() != posixErrorDomain || error.code() != ETIMEDOUT) throw;
      listener_->quiet();
      continue;
    }
    if (incoming.kind == RpcIncoming::Kind::push) {
      if (!listener_) continue;
      listener_->told(incoming);
      deadline = clock_.monotonic() + patience;
    } else if (!incoming.id || *incoming.id == lastId_) {
      return incoming;
    }
  }
}

HelperConnection& HelperAccess::connection() {
  HelperConnection& helper = anyConnection();
  if (!checked_) helper.requireSameProtocol();
  checked_ = true;
  return helper;
}

HelperConnection& HelperAccess::anyConnection() {
  if (!connection_) {
    try {
      connection_ = std::make_unique<HelperConnection>(connect_(), clock_, advice_);
    } catch (const Error& error) {
      throw channelFailed(error, false, advice_);
    }
  }
  return *connection_;
}

}  // namespace quillmark::cli
