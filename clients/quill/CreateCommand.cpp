#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "quill/VolumeChoice.h"

namespace quillmark::cli {

int run(CommandContext& context, const CreateRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  const auto created = ask(context, "taking a snapshot", CreateSnapshot{.volumeUUID = volume, .label = request.label});
  printResult(context, "name", created.value, created.warning);
  return exitDone;
}

}  // namespace quillmark::cli
