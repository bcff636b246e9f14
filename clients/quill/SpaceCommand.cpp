#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "quill/Schedules.h"
#include "quill/TimeText.h"
#include "scheduling/PeopleText.h"
#include "scheduling/VolumeFreeSpaceState.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

Cell bytesCell(std::int64_t bytes, Tone tone = Tone::plain) {
  return {fileSizeText(bytes), std::to_string(bytes), tone};
}

Cell timeCell(Clock& clock, const std::optional<Date>& date) {
  if (!date) return {};
  return {shownTime(clock, *date), plainTime(clock, *date)};
}

Cell stateCell(const VolumeFreeSpaceState& state) {
  const std::int64_t least = state.lowSpaceBytesThreshold, free = state.freeBytes;
  if (free < least) return {"low", std::nullopt, Tone::bad};
  // Past the first margin it isn't warned of, nor pruned any more.
  if (free - least < lowSpaceMargin(least)) return {"near", std::nullopt, Tone::doubtful};
  return {"enough", std::nullopt, Tone::good};
}

Table tableOf(CommandContext& context, const std::vector<VolumeFreeSpaceState>& states) {
  constexpr auto right = Column::Align::right;
  Table table{{{.head = "VOLUME", .mayBeCut = true},
               {.head = "SIZE", .align = right},
               {.head = "FREE", .align = right},
               {.head = "MINIMUM", .align = right},
               {.head = "STATE"},
               {.head = "NEXT CHECK", .mayBeLeft = true},
               {.head = "FIRST SEEN", .mayBeLeft = true},
               {.head = "UUID", .mayBeLeft = true}},
              {}};
  for (const VolumeFreeSpaceState& state : states) {
    table.rows.push_back({{volumeNameOf(context, state.volumeUUID)},
                          bytesCell(state.totalBytes),
                          bytesCell(state.freeBytes),
                          bytesCell(state.lowSpaceBytesThreshold),
                          stateCell(state),
                          timeCell(context.clock, state.nextPruneCheckAt),
                          timeCell(context.clock, state.firstSeenAt),
                          {state.volumeUUID}});
  }
  return table;
}

}  // namespace

int run(CommandContext& context, const SpaceRequest&) {
  const std::string answer = ask(context, "asking for the free space", GetFreeSpaceStates{}).value;
  const auto states = decodeJson<std::vector<VolumeFreeSpaceState>>(answer);
  if (context.output.json()) {
    context.output.jsonText(answer);
  } else if (states.empty() && context.output.forTerminal()) {
    context.output.line("Nothing was measured yet: the helper does it some seconds after its start.");
  } else {
    context.output.table(tableOf(context, states));
  }
  return exitDone;
}

}  // namespace quillmark::cli
