#include "wire/Rpc.h"

#include <fmt/format.h>

#include "wire/RecordCoding.h"

namespace quillmark {
namespace {

namespace json = boost::json;

constexpr std::string_view descriptionKey = "NSLocalizedDescriptionKey";
constexpr std::string_view suggestionKey = "NSLocalizedRecoverySuggestionErrorKey";
constexpr std::string_view underlyingKey = "NSUnderlyingErrorKey";
constexpr std::string_view completedKey = "QuillmarkOperationCompleted";

// Reads one argument of the type its row asks for.
ArgumentValue decodeArgument(const json::value& from, std::string_view text, const ArgumentSpec& spec) {
  const std::string where(spec.name);
  const auto as = [&]<class Type>(Type value) -> ArgumentValue {
    coding::decode(from, value, where, DateStyle::referenceSeconds);
    return value;
  };
  switch (spec.type) {
    case ArgumentType::string: return as(std::string());
    case ArgumentType::optionalString:
      return from.is_null() ? ArgumentValue(std::optional<std::string>())
                            : ArgumentValue(std::optional(std::get<std::string>(as(std::string()))));
    case ArgumentType::boolean: return as(false);
    case ArgumentType::uint64: return as(std::uint64_t{0});
    case ArgumentType::int64: return as(std::int64_t{0});
    case ArgumentType::stringArray: return as(std::vector<std::string>());
    case ArgumentType::json: return JsonArgument{std::string(text), text.size()};
  }
  throw malformedJson(where, "is of no known type");
}

json::value encodeArgument(const ArgumentValue& argument) {
  return std::visit(
      [](const auto& value) -> json::value {
        using Type = std::remove_cvref_t<decltype(value)>;
        if constexpr (std::is_same_v<Type, std::optional<std::string>>) {
          return value ? json::value(json::string(*value)) : json::value(nullptr);
        } else if constexpr (std::is_same_v<Type, JsonArgument>) {
          return parseJson(value.text, maxJsonDepth);
        } else {
          return coding::encode(value, DateStyle::referenceSeconds);
        }
      },
      argument);
}

json::object encodeError(const Error& error) {
  json::object userInfo{{descriptionKey, error.description()}};
  if (!error.recoverySuggestion().empty()) userInfo.emplace(suggestionKey, error.recoverySuggestion());
  if (error.operationCompleted()) userInfo.emplace(completedKey, true);
  if (error.underlying()) userInfo.emplace(underlyingKey, encodeError(*error.underlying()));
  return {{"domain", error.domain()}, {"code", error.code()}, {"userInfo", std::move(userInfo)}};
}

std::string textAt(const json::object& object, std::string_view key) {
  const json::value* found = object.if_contains(key);
  return found && found->is_string() ? std::string(found->get_string()) : std::string();
}

Error decodeError(const json::value& from, int depth = 0) {
  const json::object* object = from.if_object();
  if (!object) throw malformedJson("error", "is no object");
  const json::value* code = object->if_contains("code");
  long number = 0;
  if (!code || !coding::toInteger(*code, number)) throw malformedJson("error.code", "is no number");
  const json::value* info = object->if_contains("userInfo");
  const json::object none;
  const json::object& userInfo = info && info->is_object() ? info->get_object() : none;
  std::shared_ptr<const Error> underlying;
  if (const json::value* below = userInfo.if_contains(underlyingKey); below && depth < 8) {
    underlying = std::make_shared<const Error>(decodeError(*below, depth + 1));
  }
  Error error(textAt(*object, "domain"), number, textAt(userInfo, descriptionKey), std::move(underlying));
  if (const std::string suggestion = textAt(userInfo, suggestionKey); !suggestion.empty()) {
    error = std::move(error).withRecoverySuggestion(suggestion);
  }
  const json::value* completed = userInfo.if_contains(completedKey);
  if (completed && completed->is_bool() && completed->get_bool()) error = std::move(error).asOperationCompleted();
  return error;
}

bool isId(const json::value& id) { return id.is_string() || id.is_number() || id.is_null(); }

}  // namespace

std::variant<RpcCall, RpcRefusal> decodeCall(std::string_view line, ConnectionProtocol protocol) {
  std::optional<ParsedJson> parsed;
  try {
    parsed.emplace(line);
  } catch (const Error& error) {
    return RpcRefusal{"null", RpcFault::parseError, error.description()};
  }
  const json::object* request = parsed->value().if_object();
  if (!request) return RpcRefusal{"null", RpcFault::invalidRequest, "The request is no JSON object."};

  const json::value* id = request->if_contains("id");
  if (id && !isId(*id)) return RpcRefusal{"null", RpcFault::invalidRequest, "The id is no string or number."};
  const std::string idText = id ? json::serialize(*id) : "null";
  const auto refuse = [&](RpcFault fault, std::string message) {
    // Only what is a request, if a flawed one, can be a notification.
    return RpcRefusal{idText, fault, std::move(message), id != nullptr || fault == RpcFault::invalidRequest};
  };
  const json::value* version = request->if_contains("jsonrpc");
  if (!version || !version->is_string() || version->get_string() != "2.0") {
    return refuse(RpcFault::invalidRequest, "The request is no JSON-RPC 2.0.");
  }
  const json::value* method = request->if_contains("method");
  if (!method || !method->is_string()) return refuse(RpcFault::invalidRequest, "The request names no method.");
  const CommandSpec* command = findCommand(method->get_string(), protocol);
  if (!command) {
    return refuse(RpcFault::methodNotFound, fmt::format("Unknown selector \"{}\".", std::string(method->get_string())));
  }
  const json::value* params = request->if_contains("params");
  if (params && !params->is_array()) return refuse(RpcFault::invalidParams, "The params are no array.");
  const std::size_t given = params ? params->get_array().size() : 0;
  if (given != command->arguments.size()) {
    return refuse(RpcFault::invalidParams,
                  fmt::format("{} takes {} argument(s), not {}.", command->selector, command->arguments.size(), given));
  }
  const bool needsTexts = std::any_of(command->arguments.begin(), command->arguments.end(),
                                      [](const ArgumentSpec& spec) { return spec.type == ArgumentType::json; });
  const std::vector<std::string_view> texts =
      needsTexts ? elementTexts(line, "params") : std::vector<std::string_view>();
  RpcCall call{command, id ? std::optional(idText) : std::nullopt, {}};
  try {
    for (std::size_t i = 0; i < given; ++i) {
      call.arguments.push_back(decodeArgument(params->get_array()[i], i < texts.size() ? texts[i] : std::string_view(),
                                              command->arguments[i]));
    }
  } catch (const Error& error) {
    return refuse(RpcFault::invalidParams, error.description());
  }
  return call;
}

std::string jsonString(std::string_view text) { return json::serialize(json::string(text)); }

std::string encodeRefusal(const RpcRefusal& refusal) {
  return fmt::format(R"({{"jsonrpc":"2.0","id":{},"error":{{"code":{},"message":{}}}}})", refusal.id,
                     static_cast<int>(refusal.fault), jsonString(refusal.message));
}

std::string encodeReply(const std::string& id, const RpcReply& reply) {
  std::string text = R"({"jsonrpc":"2.0","id":)";
  text.reserve(text.size() + id.size() + (reply.valueJson ? reply.valueJson->size() : 0) + 256);
  text += id;
  text += R"(,"result":{)";
  if (reply.valueJson || !reply.error) text += "\"value\":" + reply.valueJson.value_or("null");
  if (reply.error) {
    if (reply.valueJson) text += ',';
    text += "\"error\":" + json::serialize(encodeError(*reply.error));
  }
  return text + "}}";
}

std::string encodeRequest(std::uint64_t id, std::string_view selector, const ArgumentValues& arguments) {
  json::array params;
  for (const ArgumentValue& argument : arguments) params.push_back(encodeArgument(argument));
  return encodeRequestText(id, selector, json::serialize(params));
}

std::string encodeRequestText(std::uint64_t id, std::string_view selector, std::string_view params) {
  return fmt::format(R"({{"jsonrpc":"2.0","id":{},"method":{},"params":{}}})", id, jsonString(selector), params);
}

std::string encodePush(std::string_view selector, const ArgumentValues& arguments) {
  json::array params;
  for (const ArgumentValue& argument : arguments) params.push_back(encodeArgument(argument));
  return fmt::format(R"({{"jsonrpc":"2.0","method":{},"params":{}}})", jsonString(selector), json::serialize(params));
}

RpcIncoming decodeIncoming(std::string_view line) {
  constexpr std::size_t maxDepth = 256;  // our own service's payloads nest deeper than what it takes from others
  const json::value message = parseJson(line, maxDepth);
  if (!message.is_object()) throw malformedJson("$", "is no object");
  const json::object& object = message.get_object();
  RpcIncoming incoming;
  if (const json::value* id = object.if_contains("id"); id && !id->is_null()) {
    std::uint64_t number = 0;
    if (!coding::toInteger(*id, number)) throw malformedJson("$.id", "is none of ours");
    incoming.id = number;
  }
  if (const json::value* method = object.if_contains("method"); method && method->is_string()) {
    const json::value* params = object.if_contains("params");
    incoming.kind = RpcIncoming::Kind::push;
    incoming.selector = std::string(method->get_string());
    incoming.params = params ? json::serialize(*params) : "[]";
    return incoming;
  }
  if (const json::value* error = object.if_contains("error"); error && error->is_object()) {
    incoming.kind = RpcIncoming::Kind::refusal;
    if (const json::value* code = error->get_object().if_contains("code"))
      coding::toInteger(*code, incoming.refusalCode);
    incoming.refusalMessage = textAt(error->get_object(), "message");
    return incoming;
  }
  const json::value* result = object.if_contains("result");
  if (!result || !result->is_object()) throw malformedJson("$.result", "is no object");
  if (const json::value* value = result->get_object().if_contains("value")) {
    incoming.reply.valueJson = json::serialize(*value);
  }
  if (const json::value* error = result->get_object().if_contains("error")) incoming.reply.error = decodeError(*error);
  return incoming;
}

std::string stringValue(const RpcReply& reply) {
  const json::value value = parseJson(reply.valueJson.value_or("null"), maxJsonDepth);
  if (!value.is_string()) throw malformedJson("$.result.value", "is no string");
  return std::string(value.get_string());
}

std::int64_t int64Value(const RpcReply& reply) {
  const json::value value = parseJson(reply.valueJson.value_or("null"), maxJsonDepth);
  std::int64_t number = 0;
  if (!coding::toInteger(value, number)) throw malformedJson("$.result.value", "is no number");
  return number;
}

}  // namespace quillmark
