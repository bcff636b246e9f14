// HelperConnection: calls to the helper, one at a time, each answered before the next.
//
//   const Answer<std::string> created = helper.call(CreateSnapshot{.volumeUUID = uuid, .label = label});
//
// Ownership: owns the channel, borrows the clock.
// Threads:   one thread at a time. A call blocks until it is answered, for at most the channel's patience.
// Errors:    the helper's own error thrown as it came; a refused call as an Error of the domain of JSON-RPC; a channel
//            that fails as helperNotReachable before the first answer, as answerLost after that.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/Error.h"
#include "platform/Transport.h"
#include "wire/Commands.h"
#include "wire/Rpc.h"

namespace quillmark {
class Clock;
}

namespace quillmark::cli {

// What a call gave. A warning tells that a follow-up step failed: the call itself was carried out and must not be
// repeated.
template <class Value>
struct Answer {
  Value value{};
  std::optional<Error> warning;
};

// Throws answerMalformed for anything but true and false.
[[nodiscard]] bool booleanValue(const RpcReply& reply);

template <ReplyKind kind>
struct ReplyValue {
  using type = std::string;  // the text, or the JSON text of a payload
};
template <>
struct ReplyValue<ReplyKind::int64> {
  using type = std::int64_t;
};
template <>
struct ReplyValue<ReplyKind::boolean> {
  using type = bool;
};

class HelperConnection final {
 public:
  // Hears what the helper tells on its own, also while a call waits for its answer. Must not call the helper itself.
  class Listener {
   public:
    virtual ~Listener() = default;
    virtual void told(const RpcIncoming& push) = 0;
    virtual void quiet() = 0;  // nothing came for a moment
  };
  // What one who isn't let in can do.
  using AdmissionAdvice = std::function<std::string()>;

  HelperConnection(std::unique_ptr<ClientChannel> channel, Clock& clock, AdmissionAdvice advice);

  // Throws protocolVersionMismatch when the helper speaks another version than this client.
  void requireSameProtocol();

  template <class Command>
  [[nodiscard]] auto call(const Command& command) {
    using Value = typename ReplyValue<Command::traits.reply>::type;
    RpcReply reply = exchange(encodeRequest(++lastId_, Command::traits.selector, argumentValues(command)));
    Answer<Value> answer;
    const bool warningAlone = reply.error && reply.valueJson.value_or("null") == "null";
    if (!warningAlone) {
      if constexpr (Command::traits.reply == ReplyKind::string) answer.value = stringValue(reply);
      if constexpr (Command::traits.reply == ReplyKind::int64) answer.value = int64Value(reply);
      if constexpr (Command::traits.reply == ReplyKind::boolean) answer.value = booleanValue(reply);
      if constexpr (Command::traits.reply == ReplyKind::data) answer.value = reply.valueJson.value_or("null");
    }
    answer.warning = std::move(reply.error);
    return answer;
  }
  // Any selector; params is the JSON text of an array. The value is JSON text.
  [[nodiscard]] Answer<std::optional<std::string>> callText(std::string_view selector, std::string_view params);

  // What the helper tells next on its own, whenever that is. A helper that ends is helperNotReachable.
  [[nodiscard]] RpcIncoming nextPush();
  // Null ends it: pushes are then passed over. A call that is listened to waits as long as pushes go on coming.
  void listen(Listener* listener) { listener_ = listener; }
  // Passes on to the listener what comes first; false when nothing came in that time. A helper that ends is
  // helperNotReachable.
  bool hear(std::chrono::nanoseconds most);

 private:
  // The reply to the request just numbered: its error, if any, says that the operation was completed.
  [[nodiscard]] RpcReply exchange(const std::string& request);
  // The answer to the latest request; pushes on the way go to the listener.
  [[nodiscard]] RpcIncoming receiveAnswer();
  // What comes first; absent when nothing does in that time.
  [[nodiscard]] std::optional<RpcIncoming> receive(std::chrono::nanoseconds most);

  const std::unique_ptr<ClientChannel> channel_;
  Clock& clock_;
  const AdmissionAdvice advice_;
  std::uint64_t lastId_ = 0;
  bool answered_ = false;
  Listener* listener_ = nullptr;
};

// HelperAccess: the connection, made when it is first needed.
// Ownership: borrows the clock.
// Threads:   one thread at a time.
class HelperAccess final {
 public:
  // Throws Error when the helper can't be reached.
  using Connect = std::function<std::unique_ptr<ClientChannel>()>;

  HelperAccess(Connect connect, Clock& clock, HelperConnection::AdmissionAdvice advice)
      : connect_(std::move(connect)), clock_(clock), advice_(std::move(advice)) {}

  // With a helper of the same protocol.
  [[nodiscard]] HelperConnection& connection();
  // With whatever helper there is: for telling what it is.
  [[nodiscard]] HelperConnection& anyConnection();

 private:
  const Connect connect_;
  Clock& clock_;
  const HelperConnection::AdmissionAdvice advice_;
  std::unique_ptr<HelperConnection> connection_;
  bool checked_ = false;
};

}  // namespace quillmark::cli
