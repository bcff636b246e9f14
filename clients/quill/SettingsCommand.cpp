#include <fmt/format.h>

#include <algorithm>

#include "base/Text.h"
#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "quill/SettingsChange.h"
#include "wire/JsonText.h"

namespace quillmark::cli {
namespace {

namespace json = boost::json;

std::string currentSettings(CommandContext& context) {
  return ask(context, "asking for the settings", GetHelperSettings{}).value;
}

std::vector<std::string> linesOf(const json::value& value) {
  std::vector<std::string> lines;
  if (const json::array* list = value.if_array()) {
    for (const json::value& item : *list) lines.push_back(linesOf(item).front());
    return lines;
  }
  const json::string* text = value.if_string();
  return {text ? std::string(*text) : json::serialize(value)};
}

Cell cellOf(const json::value& value) {
  if (value.is_array()) return {join(linesOf(value), ", "), json::serialize(value)};
  return {linesOf(value).front()};
}

using Keys = std::vector<std::string>;

void printTable(CommandContext& context, const std::string& settings, const Keys* only, bool full) {
  const ParsedJson parsed(settings);
  Table table{{{.head = "SETTING"}, {.head = "VALUE", .mayBeCut = !full}}, {}};
  for (const auto& entry : parsed.value().as_object()) {
    const std::string key(entry.key());
    if (only && std::find(only->begin(), only->end(), key) == only->end()) continue;
    table.rows.push_back({{key}, cellOf(entry.value())});
  }
  context.output.table(table);
}

int show(CommandContext& context, const SettingsRequest& request) {
  const std::string settings = currentSettings(context);
  if (context.output.json()) {
    context.output.jsonText(settings);
  } else {
    printTable(context, settings, nullptr, request.full);
  }
  return exitDone;
}

int get(CommandContext& context, const SettingsRequest& request) {
  const ParsedJson parsed(currentSettings(context));
  const json::value* value = parsed.value().as_object().if_contains(request.key);
  if (!value) throw wrongUse(fmt::format("There is no setting \"{}\".", request.key), "See them with: quill settings");
  if (context.output.json()) {
    context.output.jsonText(json::serialize(*value));
  } else {
    for (const std::string& line : linesOf(*value)) context.output.line(line);
  }
  return exitDone;
}

// What is stored may differ from what was given: the helper mends what can't be.
int store(CommandContext& context, const SettingsChange& change, bool full) {
  const std::string wanted = change.appliedTo(currentSettings(context));
  const auto answer = ask(context, "storing the settings", SetHelperSettings{{wanted}});
  if (context.output.json()) {
    context.output.jsonText(answer.value);
  } else {
    printTable(context, answer.value, &change.keys(), full);
  }
  if (answer.warning) context.output.warn(*answer.warning);
  for (const std::string& key : change.mendedIn(answer.value)) {
    context.output.note(fmt::format("{} was mended by the helper: what is shown is what is stored.", key));
  }
  return exitDone;
}

}  // namespace

int run(CommandContext& context, const SettingsRequest& request) {
  switch (request.action) {
    case SettingsAction::show: return show(context, request);
    case SettingsAction::get: return get(context, request);
    case SettingsAction::set: return store(context, SettingsChange::ofWords(request.key, request.values), request.full);
    case SettingsAction::edit: return store(context, SettingsChange::ofJson(context.input()), request.full);
  }
  return exitFailed;
}

}  // namespace quillmark::cli
