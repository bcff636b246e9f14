#include "history/SnapshotHistoryManager.h"
#include "scheduling/Scheduler.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "service/Validation.h"
#include "snapshots/Refusals.h"
#include "wire/Json.h"

namespace quillmark {
namespace {

SchedulePolicy save(HelperEnvironment& environment, const VolumeUuid& volume, const SchedulePolicy& policy) {
  const SchedulePolicy saved =
      environment.persistence.stampAndSetPolicy(volume, policy, environment.platform.clock.now());
  if (environment.scheduler) environment.scheduler->bumpGeneration(volume.text());
  if (environment.history && saved.tracked == false) environment.history->forgetRepairFailure(volume);
  return saved;
}

}  // namespace

void handle(CommandRun& run, const GetSchedule& call) {
  requireVolumeUUID(call.volumeUUID);
  run.replyData(encodeJson(run.environment().persistence.policy(VolumeUuid(call.volumeUUID))));
}

void handle(CommandRun& run, const SetSchedule& call) {
  requireVolumeUUID(call.volumeUUID);
  const SchedulePolicy policy = decodeJson<SchedulePolicy>(call.policy.text).normalized();
  // One that does nothing may be kept for any volume, mounted or not.
  if (policy.enabled) {
    refuseBackupVolume(run.service().apfs().resolveVolume(call.volumeUUID), "schedule automatic snapshots");
  }
  run.replyData(encodeJson(save(run.environment(), VolumeUuid(call.volumeUUID), policy)));
}

void handle(CommandRun& run, const ListSchedules&) {
  run.replyData(encodeJson(run.environment().persistence.allPolicies()));
}

void handle(CommandRun& run, const GetFreeSpaceStates&) {
  const std::shared_ptr<Scheduler>& scheduler = run.environment().scheduler;
  run.replyData(encodeJson(scheduler ? scheduler->freeSpaceStates() : std::vector<VolumeFreeSpaceState>()));
}

}  // namespace quillmark
