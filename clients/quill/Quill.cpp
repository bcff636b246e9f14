#include "quill/Quill.h"

#include <exception>

#include "quill/CommandLine.h"
#include "quill/Failures.h"
#include "quill/HelperConnection.h"
#include "quill/QuillCommands.h"

namespace quillmark::cli {
namespace {

constexpr std::size_t usualColumns = 80;

int runInvocation(const Invocation& invocation, World& world, Output& output) {
  const auto advice = [&] { return adviceOnAdmission(world.admission(), world.paths.helperLog); };
  HelperAccess helper([&] { return world.connect(invocation.socket); }, world.clock, advice);
  const auto liveLine = [&]() -> std::unique_ptr<LiveLine> {
    if (!world.terminal.errorsIsTerminal || !world.terminal.obeysEscapes) return nullptr;
    return std::make_unique<LiveLine>(world.sink, world.terminal.columns > 0 ? world.terminal.columns : usualColumns);
  };
  CommandContext context{helper,
                         world.volumes,
                         world.clock,
                         output,
                         world.paths,
                         world.busy,
                         world.posix,
                         world.random,
                         world.confirm,
                         world.waitForMore,
                         world.input,
                         world.endAtInterrupt,
                         world.leaveIndexingAtInterrupt,
                         world.page,
                         liveLine};
  return std::visit([&](const auto& request) { return run(context, request); }, invocation.request);
}

int runParsed(const std::vector<std::string>& arguments, World& world) {
  const auto parsed = parseCommandLine(arguments);
  if (const auto* help = std::get_if<HelpText>(&parsed)) {
    world.sink.write(TextSink::Stream::output, help->text);
    return exitDone;
  }
  const auto& invocation = std::get<Invocation>(parsed);
  Output chosen(world.sink, world.terminal, {.json = invocation.json, .color = invocation.color});
  try {
    return runInvocation(invocation, world, chosen);
  } catch (const Error& error) {
    chosen.fail(error);
    return exitCodeOf(error);
  }
}

}  // namespace

int runQuill(const std::vector<std::string>& arguments, World& world) {
  Output output(world.sink, world.terminal, {.json = asksForJson(arguments)});
  try {
    return runParsed(arguments, world);
  } catch (const Error& error) {
    output.fail(error);
    return exitCodeOf(error);
  } catch (const std::exception& exception) {
    const Error error = asError(exception);
    output.fail(error);
    return exitCodeOf(error);
  }
}

}  // namespace quillmark::cli
