#include <algorithm>

#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "wire/JsonText.h"

namespace quillmark::cli {
namespace {

// A request is one line: outside strings JSON takes a blank for a line feed.
std::string checkedArgument(std::string text) {
  try {
    (void)ParsedJson(text);
  } catch (const Error& error) {
    throw wrongUse("The argument \"" + text + "\" is no JSON text.",
                   "A string needs its quotes past the shell: '\"text\"'");
  }
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  return text;
}

std::string paramsOf(const std::vector<std::string>& arguments) {
  std::string params;
  for (const std::string& argument : arguments) params += (params.empty() ? "" : ",") + checkedArgument(argument);
  return "[" + params + "]";
}

void printBare(Output& output, const std::string& valueJson) {
  if (valueJson == "null") return;
  if (valueJson.starts_with('"')) return output.text(stringValue({.valueJson = valueJson, .error = {}}));
  output.jsonText(valueJson);
}

}  // namespace

int run(CommandContext& context, const CallRequest& request) {
  const std::string params = paramsOf(request.arguments);
  Answer<std::optional<std::string>> answer;
  {
    const auto busy = context.busy("waiting for the helper");
    answer = context.helper.connection().callText(request.selector, params);
  }
  const std::string value = answer.value.value_or("null");
  if (context.output.json()) {
    context.output.jsonText(value);
  } else {
    printBare(context.output, value);
  }
  if (answer.warning) context.output.warn(*answer.warning);
  return exitDone;
}

}  // namespace quillmark::cli
