#include "service/CommandHandlers.h"

#include <exception>
#include <tuple>
#include <type_traits>

#include "service/Handlers.h"

namespace quillmark {
namespace {

template <class Command>
void serve(CommandRun& run, const ArgumentValues& arguments) {
  try {
    handle(run, commandFrom<Command>(arguments));
  } catch (const std::exception& exception) {
    run.fail(asError(exception));
  }
}

struct Row {
  std::string_view selector;
  CommandHandler handler;
};

template <class... Command>
constexpr std::array<Row, sizeof...(Command)> rows(std::type_identity<std::tuple<Command...>>) {
  return {Row{Command::traits.selector, &serve<Command>}...};
}

constexpr auto table = rows(std::type_identity<AllCommands>{});

}  // namespace

CommandHandler handlerOf(std::string_view selector) {
  for (const Row& row : table) {
    if (row.selector == selector) return row.handler;
  }
  return nullptr;
}

}  // namespace quillmark
