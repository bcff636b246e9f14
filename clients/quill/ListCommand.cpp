#include <algorithm>

#include "base/Text.h"
#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "quill/SnapshotReference.h"
#include "quill/TimeText.h"
#include "quill/VolumeChoice.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

std::string flagsOf(const SnapshotRecord& snapshot) {
  std::vector<std::string> flags;
  if (snapshot.isProtected) flags.push_back(snapshot.isAutoProtected ? "auto-protected" : "protected");
  if (snapshot.isIndexed) flags.emplace_back("indexed");
  if (snapshot.tag) flags.push_back("tag=" + *snapshot.tag);
  return join(flags, ",");
}

Table tableOf(const std::vector<SnapshotRecord>& snapshots, Clock& clock, bool full) {
  Table table{{{.head = "NAME", .mayBeCut = !full},
               {.head = "XID", .align = Column::Align::right},
               {.head = "CREATED"},
               {.head = "FLAGS", .mayBeCut = !full},
               {.head = "SIZE", .align = Column::Align::right, .mayBeLeft = true}},
              {}};
  for (const SnapshotRecord& snapshot : snapshots) {
    const auto& bytes = snapshot.reclaimSizeBytes;
    table.rows.push_back({{full ? snapshot.name : shownNameOf(snapshot), snapshot.name},
                          {std::to_string(snapshot.xid.value)},
                          {shownTime(clock, snapshot.createdAt), plainTime(clock, snapshot.createdAt)},
                          {flagsOf(snapshot), std::nullopt, snapshot.isProtected ? Tone::good : Tone::plain},
                          {bytes ? shownSize(*bytes) : "", bytes ? std::to_string(*bytes) : ""}});
  }
  return table;
}

}  // namespace

int run(CommandContext& context, const ListRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  const std::string listing = listingOf(context, volume);
  auto snapshots = decodeJson<std::vector<SnapshotRecord>>(listing);
  if (context.output.json()) {
    context.output.jsonText(listing);
    return exitDone;
  }
  std::stable_sort(snapshots.begin(), snapshots.end(), [](const auto& a, const auto& b) { return a.xid < b.xid; });
  if (snapshots.empty() && context.output.forTerminal()) {
    context.output.line("There is no snapshot yet. Take one with: quill create");
  } else {
    context.output.table(tableOf(snapshots, context.clock, request.full));
  }
  return exitDone;
}

}  // namespace quillmark::cli
