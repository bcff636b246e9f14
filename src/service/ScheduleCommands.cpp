#include "scheduling/rules/PolicySource.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "service/Validation.h"
#include "wire/Json.h"

namespace quillmark {

void handle(CommandRun& run, const GetSchedule& call) {
  requireVolumeUUID(call.volumeUUID);
  PolicySource* policies = run.environment().policies;
  run.replyData(encodeJson(policies ? policies->policy(VolumeUuid(call.volumeUUID))
                                    : SchedulePolicy::makeDefault().normalized()));
}

void handle(CommandRun& run, const ListSchedules&) {
  PolicySource* policies = run.environment().policies;
  run.replyData(encodeJson(policies ? policies->allPolicies() : std::map<std::string, SchedulePolicy>()));
}

void handle(CommandRun& run, const GetHelperSettings&) {
  SettingsSource* settings = run.environment().settings;
  run.replyData(encodeJson((settings ? settings->current() : std::nullopt).value_or(HelperSettings())));
}

}  // namespace quillmark
