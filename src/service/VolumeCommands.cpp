#include "platform/SnapshotCalls.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "wire/Json.h"
#include "wire/Records.h"

namespace quillmark {
namespace {

UnservedSubvolumesRecord recordOf(const std::string& volumeUUID, UnservedSubvolumes found) {
  UnservedSubvolumesRecord record;
  record.volumeUUID = volumeUUID;
  record.fileSystemUUID = found.fileSystem.upper();
  for (const StrandedSnapshots& stranded : found.stranded) {
    record.strandedSnapshots.push_back({stranded.volume.upper(), stranded.count, stranded.path});
  }
  record.nestedSubvolumeCount = found.nestedCount;
  record.nestedSubvolumes = std::move(found.nestedPaths);
  return record;
}

}  // namespace

// A volume that can't be looked at is left out.
void handle(CommandRun& run, const ListUnservedSubvolumes&) {
  HelperEnvironment& environment = run.environment();
  SnapshotCalls& calls = environment.platform.snapshots;
  std::vector<UnservedSubvolumesRecord> records;
  for (const APFSVolume& volume : environment.volumes.listVolumes()) {
    if (!volume.mountPath) continue;
    const auto opened = calls.open(*volume.mountPath, VolumeUuid(volume.id));
    if (!opened) continue;
    if (auto found = calls.unservedSubvolumes(**opened)) records.push_back(recordOf(volume.id, std::move(*found)));
  }
  run.replyData(encodeJson(records));
}

}  // namespace quillmark
