#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "quill/VolumeChoice.h"

namespace quillmark::cli {

int run(CommandContext& context, const MountRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  const SnapshotRecord snapshot = snapshotMeant(snapshotsOf(context, volume), request.snapshot);
  const auto mounted = ask(context, "mounting the snapshot",
                           MountSnapshot{.name = snapshot.name, .volumeUUID = volume, .xid = snapshot.xid.value});
  printResult(context, "path", mounted.value, mounted.warning);
  return exitDone;
}

}  // namespace quillmark::cli
