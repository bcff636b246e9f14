#include <fmt/format.h>

#include "wire/CommandTable.h"

namespace quillmark {
namespace {

struct Shown {
  std::string operator()(const std::string& text) const { return text; }
  std::string operator()(const std::optional<std::string>& text) const { return text.value_or("nil"); }
  std::string operator()(bool value) const { return value ? "true" : "false"; }
  std::string operator()(std::uint64_t number) const { return fmt::to_string(number); }
  std::string operator()(std::int64_t number) const { return fmt::to_string(number); }
  std::string operator()(const std::vector<std::string>& items) const { return fmt::to_string(items.size()); }
  std::string operator()(const JsonArgument& json) const { return json.text; }
};

const ArgumentValue* find(const CommandSpec& command, const ArgumentValues& values, std::string_view name) {
  for (std::size_t i = 0; i < command.arguments.size() && i < values.size(); ++i) {
    if (command.arguments[i].name == name) return &values[i];
  }
  return nullptr;
}

std::string expand(const CommandSpec& command, const ArgumentValues& values, std::string_view place) {
  if (const auto mark = place.find('?'); mark != std::string_view::npos) {
    const ArgumentValue* value = find(command, values, place.substr(0, mark));
    const bool* flag = value ? std::get_if<bool>(value) : nullptr;
    return flag && *flag ? std::string(place.substr(mark + 1)) : std::string();
  }
  if (place.ends_with(".bytes")) {
    const ArgumentValue* value = find(command, values, place.substr(0, place.size() - 6));
    if (const auto* text = value ? std::get_if<std::string>(value) : nullptr) return fmt::to_string(text->size());
    const auto* json = value ? std::get_if<JsonArgument>(value) : nullptr;
    return fmt::to_string(json ? json->requestBytes : 0);
  }
  const ArgumentValue* value = find(command, values, place);
  return value ? std::visit(Shown{}, *value) : std::string();
}

}  // namespace

std::string entryLine(const CommandSpec& command, const ArgumentValues& arguments) {
  std::string line;
  std::string_view rest = command.entryLine;
  while (!rest.empty()) {
    const auto open = rest.find('{');
    line += rest.substr(0, open);
    if (open == std::string_view::npos) break;
    const auto close = rest.find('}', open);
    line += expand(command, arguments, rest.substr(open + 1, close - open - 1));
    rest.remove_prefix(close + 1);
  }
  return line;
}

}  // namespace quillmark
