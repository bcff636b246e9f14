#include <fmt/format.h>

#include <algorithm>

#include "platform/clock.h"
#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/IndexFollower.h"
#include "quill/IndexStates.h"
#include "quill/IndexWait.h"
#include "quill/QuillCommands.h"
#include "quill/VolumeChoice.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

// A volume that wasn't heard of for so long, and isn't finished, won't be.
constexpr std::chrono::seconds longestSilence{15};

void print(CommandContext& context, const std::vector<VolumeIndex>& indexes) {
  if (context.output.json()) return context.output.jsonText(jsonOf(indexes));
  if (indexes.empty() && context.output.forTerminal()) return context.output.line("There is no volume to index.");
  context.output.table(tableOf(indexes, context.output.forTerminal()));
}

int showStatus(CommandContext& context, const IndexRequest& request) {
  const auto volume = request.volume ? std::optional(chooseVolume(context.volumes, request.volume)) : std::nullopt;
  print(context, indexesOf(context, volume));
  return exitDone;
}

int indexSnapshot(CommandContext& context, const IndexRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  const SnapshotRecord snapshot = snapshotMeant(snapshotsOf(context, volume), request.snapshot);
  IndexFollower follower(context, {volume});
  context.leaveIndexingAtInterrupt();
  (void)context.helper.connection().call(ReindexSnapshot{.volumeUUID = volume, .xid = snapshot.xid.value});
  waitForIndex(context, follower, volume, snapshot.name);
  printResult(context, "name", snapshot.name, std::nullopt);
  return exitDone;
}

bool isFinished(const VolumeIndex& index) { return index.indexed == index.snapshots; }

// Prints how the volumes are; the exit code tells whether all is well.
int finish(CommandContext& context, const std::vector<VolumeIndex>& indexes) {
  print(context, indexes);
  if (std::all_of(indexes.begin(), indexes.end(), isFinished)) return exitDone;
  if (!context.output.json()) context.output.note("Not every snapshot could be indexed. See: quill health");
  return exitFailed;
}

int rebuildVolume(CommandContext& context, const std::string& volume) {
  {
    IndexFollower follower(context, {volume});
    context.leaveIndexingAtInterrupt();
    (void)context.helper.connection().call(ReindexVolume{.volumeUUID = volume});
  }
  return finish(context, indexesOf(context, volume));
}

bool areFinished(CommandContext& context, const std::vector<std::string>& volumes) {
  return std::all_of(volumes.begin(), volumes.end(), [&](const std::string& volume) {
    return isFinished(countedIndex(decodeJson<std::vector<SnapshotRecord>>(
        context.helper.connection().call(ListSnapshots{.volumeUUID = volume}).value)));
  });
}

int rebuildAll(CommandContext& context) {
  std::vector<std::string> volumes;
  for (const VolumeIndex& index : indexesOf(context, std::nullopt)) {
    if (index.state != IndexState::untracked) volumes.push_back(index.volumeUUID);
  }
  {
    IndexFollower follower(context, volumes);
    context.leaveIndexingAtInterrupt();
    (void)context.helper.connection().call(ReindexAllVolumes{});
    MonotonicTime heard = context.clock.monotonic();
    follower.followUntil([&] {
      const MonotonicTime now = context.clock.monotonic();
      if (follower.isRunning()) heard = now;
      return areFinished(context, volumes) || now - heard >= longestSilence;
    });
  }
  std::vector<VolumeIndex> indexes;
  for (const std::string& volume : volumes) {
    for (VolumeIndex& index : indexesOf(context, volume)) indexes.push_back(std::move(index));
  }
  return finish(context, indexes);
}

}  // namespace

int run(CommandContext& context, const IndexRequest& request) {
  switch (request.action) {
    case IndexAction::status: return showStatus(context, request);
    case IndexAction::snapshot: return indexSnapshot(context, request);
    case IndexAction::rebuild: break;
  }
  return request.all ? rebuildAll(context) : rebuildVolume(context, chooseVolume(context.volumes, request.volume));
}

}  // namespace quillmark::cli
