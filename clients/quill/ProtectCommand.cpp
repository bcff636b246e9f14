#include "quill/CommandSteps.h"
#include "quill/Outcomes.h"
#include "quill/QuillCommands.h"
#include "quill/VolumeChoice.h"

namespace quillmark::cli {

int run(CommandContext& context, const ProtectRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  std::vector<Outcome> outcomes = outcomesOf(snapshotsOf(context, volume), request.snapshots);
  const auto one = [&](Outcome& outcome) {
    const SetProtected call{.name = outcome.name(), .volumeUUID = volume, .isProtected = request.protect};
    outcome.warning = ask(context, "changing the protection", call).warning;
  };
  carryOut(outcomes, {one, {}});
  return report(context, outcomes, request.protect ? "protected" : "unprotected", &Outcome::name);
}

}  // namespace quillmark::cli
