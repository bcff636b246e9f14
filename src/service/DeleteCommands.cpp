#include <fmt/format.h>

#include "base/HelperLog.h"
#include "history/SnapshotHistoryManager.h"
#include "platform/SnapshotCalls.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "service/Validation.h"
#include "snapshots/Refusals.h"
#include "wire/Json.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

using enum QuillmarkErrorCode;

// Where deletions take place, and what covers the snapshots there.
struct Target {
  VolumeInfo volume;
  SchedulePolicy policy;
};

SchedulePolicy policyOf(CommandRun& run, const std::string& volumeUUID) {
  return run.environment().persistence.policy(VolumeUuid(volumeUUID));
}

AuditDraft draftOfDelete(const std::string& volumeUUID, const std::string& name) {
  return {HelperEvent::Kind::deleteSnapshot, "deleteSnapshot", volumeUUID, "", name, name};
}

std::string detailOfDelete(const std::string& name, bool force) { return force ? name + " (force)" : name; }

void requireDeletable(const std::string& name) {
  requireSnapshotName(name);
  if (!SnapshotNameInfo::isSystemManaged(name)) return;
  throw QuillmarkError::make(notOurSnapshot, fmt::format("Refusing to delete OS-managed snapshot \"{}\"", name));
}

Xid findByName(CommandRun& run, const VolumeInfo& volume, const std::string& name) {
  for (const SnapshotRecord& snapshot : run.service().apfs().listSnapshots(volume)) {
    if (snapshot.name == name) return snapshot.xid;
  }
  throw QuillmarkError::make(snapshotNotFound, "Snapshot no longer exists");
}

// Check and deletion are one step under the protection guard, or the snapshot could be protected in between.
Xid deleteUnlessProtected(CommandRun& run, const Target& target, const std::string& name, bool force) {
  const std::unique_ptr<ProtectionGuard> guard = run.environment().protection.lock();
  const Xid xid = findByName(run, target.volume, name);
  const std::set<Xid> protectedXIDs = guard->protectedXIDs(target.volume);
  const bool foreign = target.policy.protectForeignSnapshots && !SnapshotNameInfo::isOwned(name);
  if (!force && (protectedXIDs.contains(xid) || foreign)) {
    throw QuillmarkError::make(protectedSnapshot,
                               "Refusing to delete a protected snapshot. Use Force or unprotect it first.");
  }
  run.service().apfs().deleteSnapshot(target.volume, {name, xid});
  guard->forgetDeleted(target.volume, xid);
  return xid;
}

// With all that was kept about the snapshot.
Xid deleteWholly(CommandRun& run, const Target& target, const std::string& name, bool force) {
  HelperEnvironment& environment = run.environment();
  const auto claim = environment.history ? environment.history->claim(target.volume.key(), name) : nullptr;
  const Xid xid = deleteUnlessProtected(run, target, name, force);
  environment.log.info("deleteSnapshot OK: " + name);
  environment.names.forgetDeleted(target.volume.key(), name);
  environment.tags.forgetDeleted(target.volume, xid);
  return xid;
}

// Keeps the deletions of a batch quiet; clients hear of them once, when the last batch on the volume ends.
class QuietBatch final {
 public:
  QuietBatch(HelperEnvironment& environment, const std::string& volumeUUID)
      : environment_(environment), volumeUUID_(volumeUUID),
        deletions_(environment.platform.snapshots.beginDeletions()) {
    environment_.mutations.enter(volumeUUID_);
  }
  ~QuietBatch() {
    if (environment_.mutations.leave(volumeUUID_)) environment_.snapshotChanges->schedule(volumeUUID_);
  }
  QuietBatch(const QuietBatch&) = delete;
  QuietBatch& operator=(const QuietBatch&) = delete;

 private:
  HelperEnvironment& environment_;
  const std::string volumeUUID_;
  const std::unique_ptr<DeletionBatch> deletions_;
};

SnapshotNameOutcome deleteItem(CommandRun& run, const Target& target, const SnapshotDeleteSpec& spec,
                               std::vector<Xid>& deleted) {
  SnapshotNameOutcome outcome{.name = spec.name};
  AuditDraft draft = draftOfDelete(target.volume.uuid, spec.name);
  draft.volumeName = target.volume.name;
  const auto work = [&](AuditAttempt& attempt) {
    requireDeletable(spec.name);
    deleted.push_back(deleteWholly(run, target, spec.name, spec.force));
    const auto auditFailure = attempt.succeeded(detailOfDelete(spec.name, spec.force));
    if (auditFailure) outcome.auditWarning = auditFailure->description();
  };
  outcome.error = run.item(fmt::format("deleteSnapshots item failed ({})", spec.name), std::move(draft), work);
  return outcome;
}

}  // namespace

void handle(CommandRun& run, const DeleteSnapshot& call) {
  AuditAttempt& attempt = run.audit(draftOfDelete(call.volumeUUID, call.name));
  requireVolumeUUID(call.volumeUUID);
  requireDeletable(call.name);
  VolumeInfo volume = run.service().apfs().resolveVolume(call.volumeUUID);
  attempt.draft().volumeName = volume.name;
  refuseBackupVolume(volume, "delete snapshots");
  const Target target{std::move(volume), policyOf(run, call.volumeUUID)};
  const Xid xid = deleteWholly(run, target, call.name, call.force);
  run.environment().diffCache.purge(target.volume.key(), {xid});
  if (const auto& history = run.environment().history) history->snapshotsDeleted(target.volume, {xid});
  run.replyNothing(attempt.succeeded(detailOfDelete(call.name, call.force)));
}

void handle(CommandRun& run, const DeleteSnapshots& call) {
  HelperEnvironment& environment = run.environment();
  requireVolumeUUID(call.volumeUUID);
  const auto specs = decodeJson<std::vector<SnapshotDeleteSpec>>(call.specs.text);
  environment.log.info(fmt::format("XPC deleteSnapshots(volume={}, count={})", call.volumeUUID, specs.size()));
  requireBatchSize(specs.size());
  SchedulePolicy policy = policyOf(run, call.volumeUUID);
  const Target target{run.service().apfs().resolveVolume(call.volumeUUID), std::move(policy)};
  refuseBackupVolume(target.volume, "delete snapshots");
  const QuietBatch quiet(environment, call.volumeUUID);
  std::vector<SnapshotNameOutcome> outcomes;
  std::vector<Xid> deleted;
  for (const SnapshotDeleteSpec& spec : specs) outcomes.push_back(deleteItem(run, target, spec, deleted));
  if (!deleted.empty()) environment.diffCache.purge(target.volume.key(), {deleted.begin(), deleted.end()});
  if (environment.history && !deleted.empty()) environment.history->snapshotsDeleted(target.volume, deleted);
  run.replyData(encodeJson(outcomes));
}

}  // namespace quillmark
