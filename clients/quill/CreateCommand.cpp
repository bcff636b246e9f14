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

int run(CommandContext& context, const SafetyRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  const CreateSafetySnapshot call{.volumeUUID = volume, .label = request.label};
  const auto created = ask(context, "taking a safety snapshot", call);
  printResult(context, "name", created.value, created.warning);
  return exitDone;
}

}  // namespace quillmark::cli
