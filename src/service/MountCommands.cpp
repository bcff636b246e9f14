#include <fmt/format.h>

#include <charconv>

#include "base/HelperLog.h"
#include "history/SnapshotHistoryManager.h"
#include "platform/SnapshotCalls.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "service/Validation.h"
#include "snapshots/MountNames.h"
#include "snapshots/Refusals.h"
#include "wire/Json.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

using enum QuillmarkErrorCode;

struct Mounted {
  std::string path;
  bool isNew = false;
};

Mounted mountOrReuse(CommandRun& run, const VolumeInfo& volume, const std::string& name, Xid xid) {
  MutexLock lock(run.environment().mountPaths);
  const Platform& platform = run.environment().platform;
  const std::string path = userMountPath(platform.paths, volume, xid);
  if (!acceptableMountPath(platform.paths, path)) {
    throw QuillmarkError::make(invalidMountPath, fmt::format("Composed mount path \"{}\" failed validation", path));
  }
  if (!isMountPoint(platform.snapshots, path)) {
    const auto& history = run.environment().history;
    const auto claim = history ? history->claim(volume.key(), name) : nullptr;
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
void attribute(CommandRun& run, AuditDraft& draft, const Attribution& attribution) {
  draft.volumeName = attribution.label;
  if (!attribution.xid) return;
  draft.snapshotName = fmt::format("snap-{}", attribution.xid->value);
  if (attribution.label.empty()) return;
  try {
    std::vector<APFSVolume> matches;
    for (APFSVolume& volume : run.environment().volumes.listVolumes()) {
      if (sanitizeMountComponent(volume.name).substr(0, 40) == attribution.label) matches.push_back(std::move(volume));
    }
    if (matches.size() != 1) return;
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

AuditDraft draftOfMount(const std::string& name, const std::string& volumeUUID) {
  return {HelperEvent::Kind::mountSnapshot, "mountSnapshot", volumeUUID, "", name, name};
}

// A batch goes by the listing that its client has just seen.
enum class Verification { ofThePair, none };

struct MountResult {
  std::string path;
  std::optional<Error> auditFailure;
};

MountResult mountOne(CommandRun& run, AuditAttempt& attempt, const SnapshotMountSpec& spec, Verification verification) {
  requireVolumeUUID(spec.volumeUUID);
  requireSnapshotName(spec.name);
  refuseOSSnapshot(spec.name, "mount");
  const VolumeInfo volume = run.service().apfs().resolveVolume(spec.volumeUUID);
  attempt.draft().volumeName = volume.name;
  refuseBackupVolume(volume, "mount snapshots");
  if (verification == Verification::ofThePair) {
    (void)run.service().apfs().verifySnapshots(volume, {{spec.name, spec.xid}});
  }
  const Mounted mounted = mountOrReuse(run, volume, spec.name, spec.xid);
  run.environment().log.info(
      fmt::format("mountSnapshot OK: {} at {} (newMount={})", spec.name, mounted.path, mounted.isNew));
  if (!mounted.isNew) return {mounted.path, std::nullopt};
  return {mounted.path, attempt.succeeded("Mounted at " + mounted.path)};
}

AuditDraft draftOfUnmount(CommandRun& run, const std::string& path) {
  AuditDraft draft{HelperEvent::Kind::unmountSnapshot, "unmountSnapshot", "", "", std::nullopt, path};
  attribute(run, draft, attributionOf(run.environment().platform.paths, path));
  return draft;
}

// What indexing reads there, it reads elsewhere afterwards.
std::shared_ptr<const void> claimMountedAt(CommandRun& run, const std::string& path) {
  constexpr std::size_t uuidLength = 36;
  const auto& history = run.environment().history;
  const auto status = run.environment().platform.snapshots.statfs(path);
  const auto mark = path.rfind("@snap-");
  if (!history || !status || mark == std::string::npos || mark < uuidLength) return nullptr;
  const auto uuid = Uuid::parse(std::string_view(path).substr(mark - uuidLength, uuidLength));
  const auto name = status->mntfromname.substr(0, status->mntfromname.rfind("@/dev/"));
  return uuid ? history->claim(VolumeUuid(uuid->lower()), name) : nullptr;
}

// The error of a record that could not be stored.
std::optional<Error> unmountOne(CommandRun& run, AuditAttempt& attempt, const std::string& path) {
  HelperEnvironment& environment = run.environment();
  const Platform& platform = environment.platform;
  if (!acceptableMountPath(platform.paths, path)) {
    throw QuillmarkError::make(invalidMountPath, "Path must resolve under " + platform.paths.userMountRoot);
  }
  {
    MutexLock lock(environment.mountPaths);
    if (!isSnapshotMount(platform.snapshots, path)) {
      throw QuillmarkError::make(invalidMountPath,
                                 "Refusing to unmount a path that is not a read-only APFS snapshot mount");
    }
    const auto claim = claimMountedAt(run, path);
    if (const auto reason = environment.mountPins.activeReason(path)) {
      throw QuillmarkError::make(snapshotInUse,
                                 fmt::format("This snapshot is in use: {}. Close the window using it (or wait for the "
                                             "operation to finish), then try again.",
                                             *reason));
    }
    run.service().apfs().unmountSnapshot(path, false);
  }
  environment.log.info("unmountSnapshot OK: " + path);
  return attempt.succeeded("Unmounted " + path);
}

}  // namespace

void handle(CommandRun& run, const MountSnapshot& call) {
  AuditAttempt& attempt = run.audit(draftOfMount(call.name, call.volumeUUID));
  MountResult mounted = mountOne(run, attempt, {call.name, call.volumeUUID, Xid{call.xid}}, Verification::ofThePair);
  run.replyString(mounted.path, std::move(mounted.auditFailure));
}

void handle(CommandRun& run, const MountSnapshots& call) {
  const auto specs = decodeJson<std::vector<SnapshotMountSpec>>(call.specs.text);
  run.environment().log.info(fmt::format("XPC mountSnapshots(count={})", specs.size()));
  requireBatchSize(specs.size());
  std::vector<SnapshotMountOutcome> outcomes;
  for (const SnapshotMountSpec& spec : specs) {
    SnapshotMountOutcome& outcome = outcomes.emplace_back();
    outcome.xid = spec.xid;
    outcome.error =
        run.item(fmt::format("mountSnapshots item failed ({})", spec.name), draftOfMount(spec.name, spec.volumeUUID),
                 [&](AuditAttempt& attempt) { outcome.path = mountOne(run, attempt, spec, Verification::none).path; });
  }
  run.replyData(encodeJson(outcomes));
}

void handle(CommandRun& run, const UnmountSnapshot& call) {
  AuditAttempt& attempt = run.audit(draftOfUnmount(run, call.path));
  run.replyNothing(unmountOne(run, attempt, call.path));
}

void handle(CommandRun& run, const UnmountSnapshots& call) {
  requireBatchSize(call.paths.size());
  std::vector<SnapshotPathOutcome> outcomes;
  for (const std::string& path : call.paths) {
    const auto unmount = [&](AuditAttempt& attempt) { (void)unmountOne(run, attempt, path); };
    outcomes.push_back({path, run.item("unmountSnapshot failed", draftOfUnmount(run, path), unmount)});
  }
  run.replyData(encodeJson(outcomes));
}

}  // namespace quillmark
