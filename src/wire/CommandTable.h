// The command table: what every command takes, answers, and needs before it runs. Listener, clients, documents, fuzzers
// and tests read it; the typed side of each row is in wire/Commands.h.
// Threads: immutable.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace quillmark {

enum class ArgumentType { string, optionalString, boolean, uint64, int64, stringArray, json };

struct ArgumentSpec {
  std::string_view name;
  ArgumentType type;
};

// A JSON value as an argument: its text, with the length that it had in the request line.
struct JsonArgument {
  std::string text;
  std::size_t requestBytes = 0;
  bool operator==(const JsonArgument&) const = default;
};
using ArgumentValue = std::variant<std::string, std::optional<std::string>, bool, std::uint64_t, std::int64_t,
                                   std::vector<std::string>, JsonArgument>;
using ArgumentValues = std::vector<ArgumentValue>;

enum class ReplyKind {
  error,  // nothing, or a failure
  string,
  boolean,
  int64,
  data,  // a JSON payload
};

// Where the work runs once its entry line is written.
enum class CommandQueue { delivery, query, mutation, mount, history, globalUserInitiated };

// The protocols that export the command.
enum class CommandProtocols { helper, helperAndFinder };

// The protocol that a connection speaks.
enum class ConnectionProtocol { helper, finder };

struct CommandSpec {
  std::string_view selector;
  std::span<const ArgumentSpec> arguments;
  ReplyKind reply;
  std::string_view replyRecord;  // of a data reply, for people
  CommandQueue queue;
  bool drains;  // refused while the service is about to quit
  CommandProtocols protocols;
  // Template of the line logged on entry: {name} is an argument, {name?text} the text when a boolean one is true,
  // {name.bytes} a JSON argument's length in the request line, or a text's in UTF-8; an array shows its count. Empty:
  // none, or the handler writes its own.
  std::string_view entryLine;

  // The word of the command in log lines: the selector's first words, "deleteSnapshot".
  [[nodiscard]] std::string_view word() const;
};

[[nodiscard]] std::span<const CommandSpec> commandTable();
// Null for a selector that isn't served on such a connection.
[[nodiscard]] const CommandSpec* findCommand(std::string_view selector,
                                             ConnectionProtocol protocol = ConnectionProtocol::helper);

// The entry line of a call; empty when the command logs none here.
[[nodiscard]] std::string entryLine(const CommandSpec& command, const ArgumentValues& arguments);

[[nodiscard]] std::string_view word(ArgumentType type);
[[nodiscard]] std::string_view word(ReplyKind kind);
[[nodiscard]] std::string_view word(CommandQueue queue);

}  // namespace quillmark
