#include "history/SnapshotHistoryManager.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "service/Validation.h"
#include "snapshots/Refusals.h"
#include "wire/Json.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

SnapshotHistoryManager& requireHistory(CommandRun& run) {
  if (const auto& history = run.environment().history) return *history;
  throw QuillmarkError::make(QuillmarkErrorCode::internalError, "Snapshot history is unavailable");
}

VolumeInfo volumeToIndex(CommandRun& run, const std::string& volumeUUID) {
  VolumeInfo volume = run.service().apfs().resolveVolume(volumeUUID);
  refuseBackupVolume(volume, "index snapshots");
  return volume;
}

}  // namespace

void handle(CommandRun& run, const IndexedXIDs& call) {
  requireVolumeUUID(call.volumeUUID);
  std::set<Xid> indexed;
  if (const auto& history = run.environment().history) indexed = history->indexedXIDs(VolumeUuid(call.volumeUUID));
  run.replyData(encodeJson(std::vector<Xid>(indexed.begin(), indexed.end())));
}

void handle(CommandRun& run, const ReindexVolume& call) {
  requireVolumeUUID(call.volumeUUID);
  SnapshotHistoryManager& history = requireHistory(run);
  history.reindexVolume(volumeToIndex(run, call.volumeUUID));
  run.replyNothing();
}

void handle(CommandRun& run, const ReindexAllVolumes&) {
  requireHistory(run).reindexAllVolumes();
  run.replyNothing();
}

void handle(CommandRun& run, const ReindexSnapshot& call) {
  requireVolumeUUID(call.volumeUUID);
  SnapshotHistoryManager& history = requireHistory(run);
  history.reindexSnapshot(volumeToIndex(run, call.volumeUUID), Xid{call.xid});
  run.replyNothing();
}

}  // namespace quillmark
