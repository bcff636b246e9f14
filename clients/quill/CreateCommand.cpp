#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "quill/VolumeChoice.h"

namespace quillmark::cli {

int run(CommandContext& context, const CreateRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  HelperConnection& helper = context.helper.connection();
  Answer<std::string> created;
  {
    const auto busy = context.busy("taking a snapshot");
    created = helper.call(CreateSnapshot{.volumeUUID = volume, .label = request.label});
  }
  printResult(context, "name", created.value, created.warning);
  return exitDone;
}

}  // namespace quillmark::cli
