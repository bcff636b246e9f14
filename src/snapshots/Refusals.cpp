#include "snapshots/Refusals.h"

#include <fmt/format.h>

#include "base/Text.h"
#include "scheduling/rules/SnapshotNameInfo.h"
#include "wire/QuillmarkError.h"

namespace quillmark {

void refuseBackupVolume(const VolumeInfo& volume, std::string_view action) {
  if (!volume.role || asciiLower(*volume.role) != "backup") return;
  throw QuillmarkError::make(
      QuillmarkErrorCode::volumeNotAPFSData,
      fmt::format(
          "Volume \"{}\" has the APFS Backup role (a backup target such as a Time Machine disk). Quillmark only "
          "displays its snapshots, so it will not {}.",
          volume.name, action));
}

void refuseOSSnapshot(const std::string& name, std::string_view verb) {
  if (!SnapshotNameInfo::isSystemManaged(name)) return;
  throw QuillmarkError::make(
      QuillmarkErrorCode::notOurSnapshot,
      fmt::format("Snapshot \"{}\" is a macOS system snapshot, so Quillmark will not {} it.", name, verb));
}

bool canCreateSnapshots(const std::optional<std::string>& role) {
  return !role || role->empty() || asciiLower(*role) == "data";
}

}  // namespace quillmark
