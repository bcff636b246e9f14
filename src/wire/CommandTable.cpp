#include "wire/CommandTable.h"

#include "wire/Commands.h"

namespace quillmark {
namespace {

template <class Command>
constexpr auto argumentSpecs = std::apply(
    [](const auto&... field) {
      return std::array<ArgumentSpec, sizeof...(field)>{
          ArgumentSpec{field.name, argumentType<typename std::remove_cvref_t<decltype(field)>::type>()}...};
    },
    Command::fields());

template <class Command>
constexpr CommandSpec row() {
  constexpr CommandTraits traits = Command::traits;
  return {traits.selector, argumentSpecs<Command>, traits.reply,     traits.replyRecord,
          traits.queue,    traits.drains,          traits.protocols, traits.entryLine};
}

template <class... Command>
constexpr std::array<CommandSpec, sizeof...(Command)> rows(std::type_identity<std::tuple<Command...>>) {
  return {row<Command>()...};
}

constexpr auto table = rows(std::type_identity<AllCommands>{});

}  // namespace

std::span<const CommandSpec> commandTable() { return table; }

const CommandSpec* findCommand(std::string_view selector, ConnectionProtocol protocol) {
  for (const CommandSpec& command : table) {
    if (command.selector != selector) continue;
    const bool isExported =
        protocol == ConnectionProtocol::helper || command.protocols == CommandProtocols::helperAndFinder;
    return isExported ? &command : nullptr;
  }
  return nullptr;
}

std::string_view CommandSpec::word() const {
  std::string_view text = selector.substr(0, selector.find(':'));
  for (const std::string_view tail :
       {"WithReply", "OnVolume", "ForVolume", "WithName", "AtPath", "WithSpecsJSON", "WithPaths", "WithPathA",
        "WithToken", "WithVolumeUUID", "WithContainer", "WithBsdName"}) {
    if (text.size() > tail.size() && text.ends_with(tail)) return text.substr(0, text.size() - tail.size());
  }
  return text;
}

std::string_view word(ArgumentType type) {
  switch (type) {
    case ArgumentType::string: return "string";
    case ArgumentType::optionalString: return "string or null";
    case ArgumentType::boolean: return "boolean";
    case ArgumentType::uint64: return "unsigned 64-bit";
    case ArgumentType::int64: return "signed 64-bit";
    case ArgumentType::stringArray: return "array of strings";
    case ArgumentType::json: return "JSON";
  }
  return "";
}

std::string_view word(ReplyKind kind) {
  switch (kind) {
    case ReplyKind::error: return "null";
    case ReplyKind::string: return "string";
    case ReplyKind::boolean: return "boolean";
    case ReplyKind::int64: return "signed 64-bit";
    case ReplyKind::data: return "JSON";
  }
  return "";
}

std::string_view word(CommandQueue queue) {
  switch (queue) {
    case CommandQueue::delivery: return "delivery";
    case CommandQueue::query: return "query";
    case CommandQueue::mutation: return "mutation";
    case CommandQueue::mount: return "mount";
    case CommandQueue::history: return "history";
    case CommandQueue::globalUserInitiated: return "global";
  }
  return "";
}

}  // namespace quillmark
