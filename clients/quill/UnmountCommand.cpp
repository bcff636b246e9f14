#include <fmt/format.h>

#include <algorithm>

#include "base/Uuid.h"
#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "quill/VolumeChoice.h"
#include "wire/QuillmarkError.h"

namespace quillmark::cli {
namespace {

// By UUID and XID: the volume may have had another name when the snapshot was mounted.
std::string mountPathOf(CommandContext& context, const std::string& volume, const SnapshotRecord& snapshot) {
  const std::string root = context.paths.userMountRoot + "/";
  const std::string tail = fmt::format("-{}@snap-{}", VolumeUuid(volume).text(), snapshot.xid.value);
  for (const std::string& path : context.volumes.mountPoints()) {
    if (path.starts_with(root) && path.ends_with(tail)) return path;
  }
  throw QuillmarkError::make(QuillmarkErrorCode::snapshotUnmountFailed,
                             fmt::format("Snapshot \"{}\" is not mounted.", snapshot.name));
}

std::string pathMeant(CommandContext& context, const UnmountRequest& request) {
  if (request.snapshotOrPath.find('/') != std::string::npos)
    return context.volumes.absolutePath(request.snapshotOrPath);
  const std::string volume = chooseVolume(context.volumes, request.volume);
  return mountPathOf(context, volume, snapshotMeant(snapshotsOf(context, volume), request.snapshotOrPath));
}

}  // namespace

int run(CommandContext& context, const UnmountRequest& request) {
  const std::string path = pathMeant(context, request);
  const auto unmounted = ask(context, "unmounting the snapshot", UnmountSnapshot{.path = path});
  printResult(context, "path", path, unmounted.warning);
  return exitDone;
}

}  // namespace quillmark::cli
