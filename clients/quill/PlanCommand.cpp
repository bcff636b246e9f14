#include <fmt/format.h>

#include <algorithm>

#include "base/Text.h"
#include "platform/clock.h"
#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/Plan.h"
#include "quill/QuillCommands.h"
#include "quill/Schedules.h"
#include "quill/SnapshotReference.h"
#include "quill/TimeText.h"
#include "quill/VolumeChoice.h"
#include "scheduling/PeopleText.h"
#include "scheduling/VolumeFreeSpaceState.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

using Expiry = PruneRules::Expiry;

PlanFacts factsOf(CommandContext& context, const std::string& volume) {
  PlanFacts facts{scheduleOf(schedulesOf(context), volume), {}, {}, context.clock.now()};
  const auto settings = ask(context, "asking for the settings", GetHelperSettings{});
  facts.settings = decodeJson<HelperSettings>(settings.value);
  const auto states = ask(context, "asking for the free space", GetFreeSpaceStates{});
  for (const auto& state : decodeJson<std::vector<VolumeFreeSpaceState>>(states.value)) {
    if (equalsIgnoringAsciiCase(state.volumeUUID, volume)) facts.firstSeenAt = state.firstSeenAt;
  }
  return facts;
}

Cell endingCell(Clock& clock, const PlannedSnapshot& planned) {
  const std::string plain(word(planned.expiry.value));
  switch (planned.expiry.value) {
    case Expiry::Case::at: {
      const Date date = *planned.expiry.date;
      return {planned.removal == Removal::none ? shownTime(clock, date) : "now", plainTime(clock, date)};
    }
    case Expiry::Case::never: return {planned.snapshot.isProtected ? "never (protected)" : "never", plain};
    case Expiry::Case::whenSpaceLow: return {"when space is low", plain};
    case Expiry::Case::external: return {"not ours to end", plain};
    case Expiry::Case::unknown: break;
  }
  return {"not known", plain};
}

Cell nextCell(const PlannedSnapshot& planned, const PlanFacts& facts) {
  if (planned.removal == Removal::byLifespan) return {"goes: its time is over", "lifespan", Tone::doubtful};
  if (planned.removal == Removal::none) return {};
  const auto which = cadence(planned.kind);
  const auto kept = which ? facts.policy->retention.find(*which) : facts.policy->retention.end();
  const auto count = kept == facts.policy->retention.end() ? 0 : kept->second;
  return {fmt::format("goes: beyond the newest {} {}", count, planned.kind), "count", Tone::doubtful};
}

Table tableOf(Clock& clock, const std::vector<PlannedSnapshot>& plan, const PlanFacts& facts, bool full) {
  Table table{{{.head = "SNAPSHOT", .mayBeCut = !full},
               {.head = "XID", .align = Column::Align::right},
               {.head = "KIND"},
               {.head = "ENDS"},
               {.head = "NEXT", .mayBeCut = !full, .mayBeLeft = true}},
              {}};
  for (const PlannedSnapshot& planned : plan) {
    const std::string& name = planned.snapshot.name;
    table.rows.push_back({{full ? name : shortName(name), name},
                          {std::to_string(planned.snapshot.xid.value)},
                          {planned.kind},
                          endingCell(clock, planned),
                          nextCell(planned, facts)});
  }
  return table;
}

std::string jsonOf(const PlannedSnapshot& planned) {
  const auto& date = planned.expiry.date;
  return fmt::format(R"({{"name":{},"xid":{},"kind":{},"expiry":{{"case":"{}"{}}},"removal":"{}"}})",
                     jsonString(planned.snapshot.name), planned.snapshot.xid.value, jsonString(planned.kind),
                     word(planned.expiry.value), date ? fmt::format(",\"date\":{}", date->secondsSinceReference()) : "",
                     word(planned.removal));
}

std::string jsonOf(const std::vector<PlannedSnapshot>& plan) {
  std::vector<std::string> all;
  for (const PlannedSnapshot& planned : plan) all.push_back(jsonOf(planned));
  return "[" + join(all, ",") + "]";
}

void summarize(CommandContext& context, const std::vector<PlannedSnapshot>& plan) {
  const auto due = static_cast<std::size_t>(
      std::count_if(plan.begin(), plan.end(), [](const auto& planned) { return planned.removal != Removal::none; }));
  if (plan.empty()) return context.output.line("There is no snapshot yet.");
  context.output.line(
      due == 0 ? "Nothing is to be deleted now."
               : fmt::format("The next pass deletes {}. This command deletes nothing.", counted(due, "snapshot")));
}

void noteWhatHolds(CommandContext& context, const PlanFacts& facts) {
  if (!facts.settings.automaticDeletionEnabled) {
    context.output.note(
        "Automatic deletion is switched off: nothing goes until quill settings set automaticDeletionEnabled true");
  }
  if (!facts.policy) context.output.note("The volume has no schedule: quill schedule on");
  if (facts.policy && facts.policy->tracked == false) {
    context.output.note("The volume isn't tracked: nothing happens on it by itself.");
  }
}

}  // namespace

int run(CommandContext& context, const PlanRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  const PlanFacts facts = factsOf(context, volume);
  const auto plan = planOf(snapshotsOf(context, volume), facts);
  if (context.output.json()) {
    context.output.jsonText(jsonOf(plan));
    return exitDone;
  }
  context.output.table(tableOf(context.clock, plan, facts, request.full));
  if (context.output.forTerminal()) summarize(context, plan);
  noteWhatHolds(context, facts);
  return exitDone;
}

}  // namespace quillmark::cli
