#include "quill/Schedules.h"

#include "base/Text.h"
#include "quill/CommandSteps.h"
#include "wire/Json.h"

namespace quillmark::cli {

Schedules schedulesOf(CommandContext& context) {
  return decodeJson<Schedules>(ask(context, "asking for the schedules", ListSchedules{}).value);
}

std::optional<SchedulePolicy> scheduleOf(const Schedules& schedules, std::string_view volumeUUID) {
  for (const auto& [uuid, policy] : schedules) {
    if (equalsIgnoringAsciiCase(uuid, volumeUUID)) return policy;
  }
  return std::nullopt;
}

std::string_view stateOf(const std::optional<SchedulePolicy>& policy) {
  if (!policy) return "none";
  if (!policy->tracked.value_or(true)) return "untracked";
  return policy->enabled ? "on" : "off";
}

std::string volumeNameOf(CommandContext& context, std::string_view volumeUUID) {
  for (const APFSVolume& volume : context.volumes.list(false)) {
    if (equalsIgnoringAsciiCase(volume.id, volumeUUID)) return volume.name;
  }
  return {};
}

}  // namespace quillmark::cli
