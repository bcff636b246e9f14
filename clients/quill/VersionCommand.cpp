#include <fmt/format.h>

#include "quill/ClientVersion.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "wire/QuillmarkXPC.h"

namespace quillmark::cli {

int run(CommandContext& context, const VersionRequest&) {
  Output& output = context.output;
  if (!output.json()) output.line(fmt::format("quill     {}", clientVersion()));
  auto busy = context.busy("asking the helper");
  HelperConnection& helper = context.helper.anyConnection();
  const std::int64_t protocol = helper.call(ProtocolVersion{}).value;
  const std::string version = helper.call(HelperVersion{}).value;
  const std::string commit = helper.call(HelperGitCommit{}).value;
  busy.reset();
  if (!output.json()) {
    output.line("helper    " + version);
    output.line("commit    " + commit);
    output.line(fmt::format("protocol  {}", protocol));
  }
  helper.requireSameProtocol();
  if (output.json()) {
    output.jsonText(fmt::format(
        R"({{"client":{{"version":{},"protocol":{}}},"helper":{{"version":{},"commit":{},"protocol":{}}}}})",
        jsonString(clientVersion()), QuillmarkXPC::protocolVersion, jsonString(version), jsonString(commit), protocol));
  }
  return exitDone;
}

}  // namespace quillmark::cli
