// JSON-RPC 2.0 as the service speaks it (https://www.jsonrpc.org/specification): one message a line, params by position,
// no batches. A served call's result is {"value":…,"error":{…}} with one or both; JSON-RPC's own error is for calls that
// are malformed.
// Threads: pure. Takes hostile input.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "base/Error.h"
#include "wire/CommandTable.h"

namespace quillmark {

// Why a line is no call: JSON-RPC's own codes.
enum class RpcFault {
  parseError = -32700,
  invalidRequest = -32600,
  methodNotFound = -32601,
  invalidParams = -32602,
};

// A well-formed call of a served command.
struct RpcCall {
  const CommandSpec* command = nullptr;
  std::optional<std::string> id;  // JSON text; absent in a notification, which gets no reply
  ArgumentValues arguments;
};

struct RpcRefusal {
  std::string id;  // JSON text; "null" when the line told none
  RpcFault fault;
  std::string message;
  bool answered = true;  // false for a malformed notification
};

// What the connection's protocol doesn't export is unknown, whatever its arguments.
[[nodiscard]] std::variant<RpcCall, RpcRefusal> decodeCall(std::string_view line,
                                                           ConnectionProtocol protocol = ConnectionProtocol::helper);

// The answer of a served call: a value as JSON text, a failure, or both when a completed operation has a follow-up failure.
struct RpcReply {
  std::optional<std::string> valueJson;
  std::optional<Error> error;
};

[[nodiscard]] std::string encodeRefusal(const RpcRefusal& refusal);
[[nodiscard]] std::string encodeReply(const std::string& id, const RpcReply& reply);
[[nodiscard]] std::string encodeRequest(std::uint64_t id, std::string_view selector, const ArgumentValues& arguments);
// params is the JSON text of an array.
[[nodiscard]] std::string encodeRequestText(std::uint64_t id, std::string_view selector, std::string_view params);
[[nodiscard]] std::string encodePush(std::string_view selector, const ArgumentValues& arguments);

[[nodiscard]] std::string jsonString(std::string_view text);

// What a client reads: a reply to a call of its own, a refusal, or a push.
struct RpcIncoming {
  enum class Kind { reply, refusal, push } kind = Kind::reply;
  std::optional<std::uint64_t> id;
  RpcReply reply;        // of a reply
  long refusalCode = 0;  // of a refusal
  std::string refusalMessage;
  std::string selector;  // of a push
  std::string params;    // of a push: JSON text of an array
};
// Throws Error for a line that is none of them.
[[nodiscard]] RpcIncoming decodeIncoming(std::string_view line);
// A reply's value when it is a string, a number or a boolean as its command says. Throws Error otherwise.
[[nodiscard]] std::string stringValue(const RpcReply& reply);
[[nodiscard]] std::int64_t int64Value(const RpcReply& reply);

}  // namespace quillmark
