#include <fmt/format.h>

#include "base/Text.h"
#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "quill/ScheduleChange.h"
#include "quill/Schedules.h"
#include "quill/TimeText.h"
#include "quill/VolumeChoice.h"
#include "scheduling/PeopleText.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

using Policy = std::optional<SchedulePolicy>;
constexpr auto right = Column::Align::right;

Cell switchCell(bool isOn) { return {isOn ? "on" : "off", std::nullopt, isOn ? Tone::good : Tone::doubtful}; }

Cell stateCell(const Policy& policy) {
  const std::string state(stateOf(policy));
  return {state, std::nullopt, state == "on" ? Tone::good : Tone::doubtful};
}

Cell timeCell(Clock& clock, const std::optional<Date>& date) {
  if (!date) return {};
  return {shownTime(clock, *date), plainTime(clock, *date)};
}

std::int64_t keptOf(const SchedulePolicy& policy, SnapshotCadence cadence) {
  const auto found = policy.retention.find(cadence);
  return found == policy.retention.end() ? defaultRetention(cadence) : found->second;
}

// "hourly=24,daily=7": what runs, and how many are kept.
std::string runningOf(const SchedulePolicy& policy, std::string_view between) {
  std::vector<std::string> running;
  for (const SnapshotCadence cadence : allCadences) {
    if (policy.isRotating(cadence)) running.push_back(fmt::format("{}={}", word(cadence), keptOf(policy, cadence)));
  }
  return join(running, between);
}

Cell leastSpaceCell(const SchedulePolicy& policy) {
  return {fileSizeText(policy.lowSpaceBytes), std::to_string(policy.lowSpaceBytes)};
}

void addOverview(Table& table, const std::string& name, const std::string& uuid, const Policy& policy) {
  const Cell running = policy ? Cell{runningOf(*policy, ", "), runningOf(*policy, ",")} : Cell{};
  const Cell leastSpace = policy && policy->pruneOnLowSpace ? leastSpaceCell(*policy) : Cell{};
  table.rows.push_back({{name}, stateCell(policy), running, leastSpace, {uuid}});
}

Table overviewOf(CommandContext& context, Schedules schedules) {
  Table table{{{.head = "VOLUME", .mayBeCut = true},
               {.head = "SCHEDULE"},
               {.head = "KEEPS"},
               {.head = "LOW SPACE", .align = right},
               {.head = "UUID", .mayBeLeft = true}},
              {}};
  for (const APFSVolume& volume : context.volumes.list(false)) {
    addOverview(table, volume.name, volume.id, scheduleOf(schedules, volume.id));
    std::erase_if(schedules, [&](const auto& entry) { return equalsIgnoringAsciiCase(entry.first, volume.id); });
  }
  for (const auto& [uuid, policy] : schedules) addOverview(table, "", uuid, policy);  // not here at the moment
  return table;
}

int showAll(CommandContext& context) {
  const std::string answer = ask(context, "asking for the schedules", ListSchedules{}).value;
  auto schedules = decodeJson<Schedules>(answer);
  if (context.output.json()) {
    context.output.jsonText(answer);
  } else {
    context.output.table(overviewOf(context, std::move(schedules)));
  }
  return exitDone;
}

std::optional<Date> stoppedAt(const SchedulePolicy& policy, SnapshotCadence cadence) {
  if (policy.enabledCadences.contains(cadence) || !policy.cadenceDisabledAt) return std::nullopt;
  const auto found = policy.cadenceDisabledAt->find(cadence);
  return found == policy.cadenceDisabledAt->end() ? std::nullopt : std::optional(found->second);
}

Table detailOf(Clock& clock, const SchedulePolicy& policy) {
  Table table{{{.head = "SETTING"}, {.head = "STATE"}, {.head = "KEEPS", .align = right}, {.head = "OFF SINCE"}}, {}};
  table.rows.push_back({{"schedule"}, switchCell(policy.enabled), {}, timeCell(clock, policy.scheduleDisabledAt)});
  for (const SnapshotCadence cadence : allCadences) {
    table.rows.push_back({{std::string(word(cadence))},
                          switchCell(policy.enabledCadences.contains(cadence)),
                          {std::to_string(keptOf(policy, cadence))},
                          timeCell(clock, stoppedAt(policy, cadence))});
  }
  table.rows.push_back({{"low-space"}, switchCell(policy.pruneOnLowSpace), leastSpaceCell(policy), {}});
  table.rows.push_back({{"protect-foreign"}, switchCell(policy.protectForeignSnapshots), {}, {}});
  table.rows.push_back({{"tracked"}, switchCell(policy.tracked.value_or(true)), {}, {}});
  return table;
}

void print(CommandContext& context, const Policy& policy) {
  if (context.output.json()) {
    context.output.jsonText(policy ? encodeJson(*policy) : "null");
  } else if (policy) {
    context.output.table(detailOf(context.clock, *policy));
  } else if (context.output.forTerminal()) {
    context.output.line("This volume has no schedule. Begin one with: quill schedule on");
  } else {
    context.output.table({{}, {{{"schedule"}, {"none"}, {}, {}}}});
  }
}

int change(CommandContext& context, const ScheduleRequest& request) {
  const ScheduleChange change(request);
  const std::string volume = chooseVolume(context.volumes, request.volume);
  const Policy before = scheduleOf(schedulesOf(context), volume);
  const SchedulePolicy wanted = change.appliedTo(before.value_or(SchedulePolicy::makeDefault().normalized()));
  const auto answer = ask(context, "storing the schedule", SetSchedule{volume, {encodeJson(wanted)}});
  const auto stored = decodeJson<SchedulePolicy>(answer.value);
  print(context, stored);
  if (answer.warning) context.output.warn(*answer.warning);
  if (stored.enabled && !stored.tracked.value_or(true)) {
    context.output.note("The volume isn't tracked: nothing is scheduled on it until: quill schedule set --tracked on");
  }
  return exitDone;
}

}  // namespace

int run(CommandContext& context, const ScheduleRequest& request) {
  if (request.action != ScheduleAction::show) return change(context, request);
  if (!request.volume) return showAll(context);
  print(context, scheduleOf(schedulesOf(context), chooseVolume(context.volumes, request.volume)));
  return exitDone;
}

}  // namespace quillmark::cli
