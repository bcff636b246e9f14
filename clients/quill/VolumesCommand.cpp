#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

Cell size(const std::optional<std::uint64_t>& bytes) {
  if (!bytes) return {"", std::nullopt};
  return {shownSize(*bytes), std::to_string(*bytes)};
}

Table tableOf(const std::vector<APFSVolume>& volumes, bool full) {
  constexpr auto right = Column::Align::right;
  Table table{{{.head = "NAME", .mayBeCut = !full},
               {.head = "DEVICE"},
               {.head = "SIZE", .align = right},
               {.head = "USED", .align = right},
               {.head = "FREE", .align = right},
               {.head = "BUS", .mayBeLeft = !full},
               {.head = "MOUNTED AT", .mayBeCut = !full},
               {.head = "UUID", .mayBeLeft = !full}},
              {}};
  for (const APFSVolume& volume : volumes) {
    table.rows.push_back({{volume.name},
                          {volume.bsdName},
                          size(volume.totalBytes),
                          size(volume.usedBytes),
                          size(volume.availableBytes),
                          {volume.connectionBus.value_or("")},
                          {volume.mountPath.value_or("")},
                          {volume.id}});
  }
  return table;
}

}  // namespace

int run(CommandContext& context, const VolumesRequest& request) {
  std::vector<APFSVolume> volumes;
  {
    const auto busy = context.busy("looking at the volumes");
    volumes = context.volumes.list(true);
  }
  if (context.output.json()) {
    context.output.jsonText(encodeJson(volumes));
  } else if (volumes.empty() && context.output.forTerminal()) {
    context.output.line("No btrfs volume is mounted writable here.");
  } else {
    context.output.table(tableOf(volumes, request.full));
  }
  return exitDone;
}

}  // namespace quillmark::cli
