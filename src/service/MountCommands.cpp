#include <fmt/format.h>

#include <charconv>

#include "base/HelperLog.h"
#include "platform/SnapshotCalls.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "service/Validation.h"
#include "snapshots/MountNames.h"
#include "snapshots/Refusals.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

using enum QuillmarkErrorCode;

struct Mounted {
  std::string path;
  bool isNew = false;
};

Mounted mountOrReuse(CommandRun& run, const VolumeInfo& volume, const std::string& name, Xid xid) {
  const Platform& platform = run.environment().platform;
  const std::string path = userMountPath(platform.paths, volume, xid);
  if (!acceptableMountPath(platform.paths, path)) {
    throw QuillmarkError::make(invalidMountPath, fmt::format("Composed mount path \"{}\" failed validation", path));
  }
  if (!isMountPoint(platform.snapshots, path)) {
    run.service().apfs().mountSnapshot(volume, {name, xid}, path);
    return {path, true};
  }
  const auto status = platform.snapshots.statfs(path);
  if (!status || status->mntfromname != fmt::format("{}@/dev/{}", name, volume.bsdName)) {
    throw QuillmarkError::make(invalidMountPath,
                               fmt::format("Mount point \"{}\" is already used by another snapshot or volume", path));
  }
  return {path, false};
}

// Whose mount a path is, as far as its name tells: for the audit record only.
struct Attribution {
  std::string label;
  std::optional<Xid> xid;
};

Attribution attributionOf(const HostPaths& paths, const std::string& path) {
  constexpr std::string_view mark = "@snap-";
  constexpr std::size_t uuidTail = 37;  // "-" and the UUID
  const std::string root = paths.userMountRoot + "/";
  const auto at = path.rfind(mark);
  if (!path.starts_with(root) || at == std::string::npos || at < root.size()) return {};
  Attribution attribution;
  const std::string digits = path.substr(at + mark.size());
  std::uint64_t number = 0;
  const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (failure == std::errc() && end == digits.data() + digits.size()) attribution.xid = Xid{number};
  std::string stem = path.substr(root.size(), at - root.size());
  if (stem.size() > uuidTail && stem[stem.size() - uuidTail] == '-' &&
      Uuid::parse(std::string_view(stem).substr(stem.size() - uuidTail + 1))) {
    stem.resize(stem.size() - uuidTail);
  }
  attribution.label = std::move(stem);
  return attribution;
}

// Names the volume and the snapshot when exactly one volume bears the label. Nothing here can fail the command.
void attribute(CommandRun& run, const Attribution& attribution) {
  AuditDraft& draft = run.draft();
  draft.volumeName = attribution.label;
  if (attribution.xid) draft.snapshotName = fmt::format("snap-{}", attribution.xid->value);
  if (!run.environment().audit || attribution.label.empty() || !attribution.xid) return;
  std::vector<APFSVolume> matches;
  for (APFSVolume& volume : run.environment().volumes.listVolumes()) {
    if (sanitizeMountComponent(volume.name).substr(0, 40) == attribution.label) matches.push_back(std::move(volume));
  }
  if (matches.size() != 1) return;
  try {
    const VolumeInfo volume = run.service().apfs().resolveVolume(matches.front().id);
    for (const SnapshotRecord& snapshot : run.service().apfs().listSnapshots(volume)) {
      if (snapshot.xid != *attribution.xid) continue;
      draft.volumeUUID = volume.uuid;
      draft.snapshotName = snapshot.name;
    }
  } catch (const std::exception&) {
    // What isn't found stays as parsed.
  }
}

}  // namespace

void handle(CommandRun& run, const MountSnapshot& call) {
  run.audit({HelperEvent::Kind::mountSnapshot, "mountSnapshot", call.volumeUUID, "", call.name, call.name});
  requireVolumeUUID(call.volumeUUID);
  requireSnapshotName(call.name);
  refuseOSSnapshot(call.name, "mount");
  const VolumeInfo volume = run.service().apfs().resolveVolume(call.volumeUUID);
  run.draft().volumeName = volume.name;
  refuseBackupVolume(volume, "mount snapshots");
  const Xid xid{call.xid};
  (void)run.service().apfs().verifySnapshots(volume, {{call.name, xid}});
  const Mounted mounted = [&] {
    MutexLock lock(run.environment().mountPaths);
    return mountOrReuse(run, volume, call.name, xid);
  }();
  run.environment().log.info(
      fmt::format("mountSnapshot OK: {} at {} (newMount={})", call.name, mounted.path, mounted.isNew));
  std::optional<Error> auditFailure;
  if (mounted.isNew) auditFailure = run.recordSuccess("Mounted at " + mounted.path);
  run.replyString(mounted.path, std::move(auditFailure));
}

void handle(CommandRun& run, const UnmountSnapshot& call) {
  const Platform& platform = run.environment().platform;
  run.audit({HelperEvent::Kind::unmountSnapshot, "unmountSnapshot", "", "", std::nullopt, call.path});
  attribute(run, attributionOf(platform.paths, call.path));
  if (!acceptableMountPath(platform.paths, call.path)) {
    throw QuillmarkError::make(invalidMountPath, "Path must resolve under " + platform.paths.userMountRoot);
  }
  {
    MutexLock lock(run.environment().mountPaths);
    if (!isSnapshotMount(platform.snapshots, call.path)) {
      throw QuillmarkError::make(invalidMountPath,
                                 "Refusing to unmount a path that is not a read-only APFS snapshot mount");
    }
    run.service().apfs().unmountSnapshot(call.path, false);
  }
  run.environment().log.info("unmountSnapshot OK: " + call.path);
  run.replyNothing(run.recordSuccess("Unmounted " + call.path));
}

}  // namespace quillmark
