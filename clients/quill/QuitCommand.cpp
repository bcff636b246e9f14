#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"

namespace quillmark::cli {

int run(CommandContext& context, const QuitRequest&) {
  const bool started = ask(context, "asking the helper", RequestQuit{}).value;
  if (context.output.json()) {
    context.output.jsonText(started ? R"({"quitting":true,"wasQuitting":false})"
                                    : R"({"quitting":true,"wasQuitting":true})");
  } else {
    context.output.line(started ? "The helper finishes what it has begun and quits, in a minute at the latest."
                                : "The helper was already quitting.");
  }
  return exitDone;
}

}  // namespace quillmark::cli
