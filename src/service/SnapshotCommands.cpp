#include <fmt/format.h>

#include "base/HelperLog.h"
#include "history/SnapshotHistoryManager.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "service/Validation.h"
#include "snapshots/Refusals.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

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
  const auto& history = run.environment().history;
  if (!history) return;
  try {
    for (const SnapshotRecord& snapshot : run.service().apfs().listSnapshots(volume)) {
      if (snapshot.name == name) return history->snapshotCreated(volume, snapshot);
    }
  } catch (const std::exception& failure) {
    run.environment().log.error("created snapshot but could not record history: " + asError(failure).description());
  }
}

struct Created {
  VolumeInfo volume;
  std::string name;
};

// roleAdvice ends the refusal of a volume by its role.
Created create(CommandRun& run, AuditAttempt& attempt, const std::string& label, SnapshotNameInfo::Kind kind,
               std::string_view roleAdvice) {
  const std::string& uuid = attempt.draft().volumeUUID;
  requireVolumeUUID(uuid);
  requireLabel(label);
  VolumeInfo volume = run.service().apfs().resolveVolume(uuid);
  attempt.draft().volumeName = volume.name;
  if (!canCreateSnapshots(volume.role)) {
    throw QuillmarkError::make(QuillmarkErrorCode::volumeNotAPFSData,
                               fmt::format("Refusing to create snapshot on volume \"{}\" (role={}).{}", volume.name,
                                           volume.role.value_or("nil"), roleAdvice));
  }
  std::string name = run.service().apfs().createSnapshot(volume, label, kind, run.environment().platform.clock.now());
  attempt.draft().snapshotName = name;
  return {std::move(volume), std::move(name)};
}

AuditDraft draftOfCreate(const std::string& volumeUUID, const std::string& label) {
  return {HelperEvent::Kind::createSnapshot, "createSnapshot", volumeUUID, "", std::nullopt, label};
}

}  // namespace

void handle(CommandRun& run, const CreateSnapshot& call) {
  HelperEnvironment& environment = run.environment();
  AuditAttempt& attempt = run.audit(draftOfCreate(call.volumeUUID, call.label));
  const auto [volume, name] = create(run, attempt, call.label, SnapshotNameInfo::Kind::manual(),
                                     " Snapshots may only be created on Data or unrolled volumes.");
  std::optional<Error> nameFailure = environment.names.setDisplayName(volume.key(), name, call.label);
  environment.log.info(fmt::format("createSnapshot OK: {} on {}", name, volume.name));
  std::optional<Error> auditFailure = attempt.succeeded(call.label);
  run.replyString(name, followUpOfCreate(call.label, std::move(nameFailure), std::move(auditFailure)));
  registerForIndexing(run, volume, name);
}

void handle(CommandRun& run, const CreateSafetySnapshot& call) {
  AuditAttempt& attempt = run.audit(draftOfCreate(call.volumeUUID, call.label));
  const auto [volume, name] = create(run, attempt, call.label, SnapshotNameInfo::Kind::safety(), "");
  run.environment().log.info(fmt::format("createSnapshot OK: {} on {}", name, volume.name));
  run.replyString(
      name, attempt.succeeded(fmt::format("Safety snapshot ({}); pruned after the retention period", call.label)));
  registerForIndexing(run, volume, name);
}

}  // namespace quillmark
