#include <fmt/format.h>

#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "quill/SnapshotReference.h"
#include "quill/VolumeChoice.h"

namespace quillmark::cli {
namespace {

int show(CommandContext& context, const SnapshotRecord& snapshot) {
  Output& output = context.output;
  if (output.json()) {
    const std::string tail = snapshot.tag ? ",\"tag\":" + jsonString(*snapshot.tag) : "";
    output.jsonText(fmt::format("{{\"name\":{}{}}}", jsonString(snapshot.name), tail));
  } else if (snapshot.tag) {
    output.text(*snapshot.tag);
  } else if (output.forTerminal()) {
    output.line(fmt::format("\"{}\" has no tag.", shortName(snapshot.name)));
  }
  return exitDone;
}

}  // namespace

int run(CommandContext& context, const TagRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  const SnapshotRecord snapshot = snapshotMeant(snapshotsOf(context, volume), request.snapshot);
  if (!request.text) return show(context, snapshot);
  const SetSnapshotTag call{.name = snapshot.name, .volumeUUID = volume, .tag = *request.text};
  const auto warning = ask(context, "changing the tag", call).warning;
  printResult(context, "name", snapshot.name, warning);
  return exitDone;
}

}  // namespace quillmark::cli
