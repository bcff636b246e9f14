#include <fmt/format.h>

#include <algorithm>

#include "base/HelperLog.h"
#include "scheduling/rules/PolicySource.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "service/Validation.h"
#include "snapshots/Refusals.h"
#include "snapshots/SnapshotHistory.h"
#include "snapshots/SnapshotLabels.h"
#include "snapshots/SnapshotProtection.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

using enum QuillmarkErrorCode;

// A failed name store takes precedence over a failed audit write: it is what a retry would double.
std::optional<Error> followUpOfCreate(const std::string& label, std::optional<Error> nameFailure,
                                      std::optional<Error> auditFailure) {
  if (!nameFailure) return auditFailure;
  return QuillmarkError::operationCompleted(
      fmt::format("The snapshot was created, but its name \"{}\" could not be saved and will not survive a restart: {}",
                  label, nameFailure->description()),
      std::make_shared<const Error>(*nameFailure));
}

void registerForIndexing(CommandRun& run, const VolumeInfo& volume, const std::string& name) {
  SnapshotHistory* history = run.environment().history;
  if (!history) return;
  try {
    for (const SnapshotRecord& snapshot : run.service().apfs().listSnapshots(volume)) {
      if (snapshot.name == name) return history->snapshotCreated(volume, snapshot);
    }
  } catch (const std::exception& failure) {
    run.environment().log.error("created snapshot but could not record history: " + asError(failure).description());
  }
}

SnapshotRecord findByName(CommandRun& run, const VolumeInfo& volume, const std::string& name) {
  for (SnapshotRecord& snapshot : run.service().apfs().listSnapshots(volume)) {
    if (snapshot.name == name) return std::move(snapshot);
  }
  throw QuillmarkError::make(snapshotNotFound, "Snapshot no longer exists");
}

// Check and deletion are one step under the protection guard, or the snapshot could be protected in between.
Xid deleteUnlessProtected(CommandRun& run, const VolumeInfo& volume, const SchedulePolicy& policy,
                          const std::string& name, bool force) {
  SnapshotProtection* protection = run.environment().protection;
  const std::unique_ptr<ProtectionGuard> guard = protection ? protection->lock() : nullptr;
  const Xid xid = findByName(run, volume, name).xid;
  const std::set<Xid> protectedXIDs = guard ? guard->protectedXIDs(volume) : std::set<Xid>();
  const bool foreign = policy.protectForeignSnapshots && !SnapshotNameInfo::isOwned(name);
  if (!force && (protectedXIDs.contains(xid) || foreign)) {
    throw QuillmarkError::make(protectedSnapshot,
                               "Refusing to delete a protected snapshot. Use Force or unprotect it first.");
  }
  run.service().apfs().deleteSnapshot(volume, {name, xid});
  if (guard) guard->forgetDeleted(volume, xid);
  return xid;
}

void forgetLabels(HelperEnvironment& environment, const VolumeInfo& volume, const std::string& name, Xid xid) {
  if (environment.names) environment.names->forgetDeleted(volume.key(), name);
  if (environment.tags) environment.tags->forgetDeleted(volume, xid);
}

}  // namespace

void handle(CommandRun& run, const CreateSnapshot& call) {
  HelperEnvironment& environment = run.environment();
  run.audit({HelperEvent::Kind::createSnapshot, "createSnapshot", call.volumeUUID, "", std::nullopt, call.label});
  requireVolumeUUID(call.volumeUUID);
  requireLabel(call.label);
  const VolumeInfo volume = run.service().apfs().resolveVolume(call.volumeUUID);
  run.draft().volumeName = volume.name;
  if (!canCreateSnapshots(volume.role)) {
    throw QuillmarkError::make(
        volumeNotAPFSData, fmt::format("Refusing to create snapshot on volume \"{}\" (role={}). Snapshots may only be "
                                       "created on Data or unrolled volumes.",
                                       volume.name, volume.role.value_or("nil")));
  }
  const std::string name = run.service().apfs().createSnapshot(volume, call.label, SnapshotNameInfo::Kind::manual(),
                                                               environment.platform.clock.now());
  run.draft().snapshotName = name;
  std::optional<Error> nameFailure;
  if (environment.names) nameFailure = environment.names->setDisplayName(volume.key(), name, call.label);
  environment.log.info(fmt::format("createSnapshot OK: {} on {}", name, volume.name));
  std::optional<Error> auditFailure = run.recordSuccess(call.label);
  run.replyString(name, followUpOfCreate(call.label, std::move(nameFailure), std::move(auditFailure)));
  registerForIndexing(run, volume, name);
}

void handle(CommandRun& run, const DeleteSnapshot& call) {
  HelperEnvironment& environment = run.environment();
  run.audit({HelperEvent::Kind::deleteSnapshot, "deleteSnapshot", call.volumeUUID, "", call.name, call.name});
  requireVolumeUUID(call.volumeUUID);
  requireSnapshotName(call.name);
  if (SnapshotNameInfo::isSystemManaged(call.name)) {
    throw QuillmarkError::make(notOurSnapshot, fmt::format("Refusing to delete OS-managed snapshot \"{}\"", call.name));
  }
  const VolumeInfo volume = run.service().apfs().resolveVolume(call.volumeUUID);
  run.draft().volumeName = volume.name;
  refuseBackupVolume(volume, "delete snapshots");
  const SchedulePolicy policy =
      environment.policies ? environment.policies->policy(volume.key()) : SchedulePolicy::makeDefault().normalized();
  const Xid xid = deleteUnlessProtected(run, volume, policy, call.name, call.force);
  environment.log.info("deleteSnapshot OK: " + call.name);
  forgetLabels(environment, volume, call.name, xid);
  if (environment.history) environment.history->snapshotsDeleted(volume, {xid});
  run.replyNothing(run.recordSuccess(call.force ? call.name + " (force)" : call.name));
}

}  // namespace quillmark
