// What the helper knows of the volumes for which it works on its own.
// Threads: as the commands.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "quill/QuillCommands.h"
#include "scheduling/rules/SchedulePolicy.h"

namespace quillmark::cli {

using Schedules = std::map<std::string, SchedulePolicy>;

// Of all volumes that have one, by UUID.
[[nodiscard]] Schedules schedulesOf(CommandContext& context);
// Absent for a volume without one: nothing is scheduled there, whatever the defaults are.
[[nodiscard]] std::optional<SchedulePolicy> scheduleOf(const Schedules& schedules, std::string_view volumeUUID);

// "on", "off", "untracked", or "none".
[[nodiscard]] std::string_view stateOf(const std::optional<SchedulePolicy>& policy);

// As this machine calls the volume; empty when it isn't here.
[[nodiscard]] std::string volumeNameOf(CommandContext& context, std::string_view volumeUUID);

}  // namespace quillmark::cli
