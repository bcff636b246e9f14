#include <fmt/format.h>

#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "service/Validation.h"
#include "snapshots/Refusals.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

std::optional<Xid> xidOf(CommandRun& run, const VolumeInfo& volume, const std::string& name) {
  for (const SnapshotRecord& snapshot : run.service().apfs().listSnapshots(volume)) {
    if (snapshot.name == name) return snapshot.xid;
  }
  return std::nullopt;
}

VolumeInfo resolve(CommandRun& run, AuditAttempt& attempt, std::string_view action) {
  VolumeInfo volume = run.service().apfs().resolveVolume(attempt.draft().volumeUUID);
  attempt.draft().volumeName = volume.name;
  refuseBackupVolume(volume, action);
  return volume;
}

}  // namespace

void handle(CommandRun& run, const SetProtected& call) {
  const std::string detail = call.isProtected ? "protected" : "unprotected";
  AuditAttempt& attempt =
      run.audit({HelperEvent::Kind::setProtection, "setProtection", call.volumeUUID, "", call.name, detail});
  requireVolumeUUID(call.volumeUUID);
  requireSnapshotName(call.name);
  if (SnapshotNameInfo::isSystemManaged(call.name)) {
    throw QuillmarkError::make(QuillmarkErrorCode::notOurSnapshot,
                               fmt::format("Cannot toggle protection on OS-managed snapshot \"{}\"", call.name));
  }
  const VolumeInfo volume = resolve(run, attempt, "change snapshot protection");
  run.environment().protection.setProtected(volume, call.isProtected, [&] { return xidOf(run, volume, call.name); });
  run.replyNothing(attempt.succeeded(detail));
}

void handle(CommandRun& run, const SetSnapshotTag& call) {
  AuditAttempt& attempt =
      run.audit({HelperEvent::Kind::setTag, "setTag", call.volumeUUID, "", call.name, "tag change failed"});
  requireVolumeUUID(call.volumeUUID);
  requireSnapshotName(call.name);
  const VolumeInfo volume = resolve(run, attempt, "tag a snapshot");
  const std::optional<std::string> tag = call.tag.empty() ? std::nullopt : std::optional(call.tag);
  run.environment().tags.setTag(volume, tag, [&] { return xidOf(run, volume, call.name); });
  run.replyNothing(attempt.succeeded(tag ? fmt::format("tag set ({} bytes)", tag->size()) : "tag cleared"));
}

}  // namespace quillmark
