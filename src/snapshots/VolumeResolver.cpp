#include "snapshots/VolumeResolver.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/Text.h"
#include "platform/SnapshotCalls.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

std::optional<std::string> firstRole(const RegistryProperty& property) {
  if (const auto* role = std::get_if<std::string>(&property)) return *role;
  if (const auto* roles = std::get_if<std::vector<std::string>>(&property)) {
    return roles->empty() ? "Data" : roles->front();
  }
  return std::nullopt;
}

void requireSession(Disks& disks) {
  if (disks.startSession()) return;
  throw QuillmarkError::make(QuillmarkErrorCode::internalError, "Could not create DA session");
}

}  // namespace

std::vector<std::string> volumePathsToWalk(Disks& disks) {
  std::vector<std::string> paths = disks.mountedVolumePaths().value_or(std::vector<std::string>());
  for (const char* path : {"/", "/System/Volumes/Data"}) {
    if (std::find(paths.begin(), paths.end(), path) == paths.end()) paths.emplace_back(path);
  }
  return paths;
}

std::optional<std::string> roleOf(const DiskDescription& description) {
  const std::optional<std::string> role = firstRole(description.role);
  return role ? role : firstRole(description.roles);
}

bool isDataRole(const std::optional<std::string>& role) { return !role || equalsIgnoringAsciiCase(*role, "data"); }

bool isServedVolume(const DiskDescription& description, const std::optional<std::string>& role) {
  if (asciiLower(description.volumeKind.value_or("")) != "apfs") return false;
  if (!description.mediaWritable.value_or(true)) return false;
  return !description.deviceInternal.value_or(false) || isDataRole(role);
}

bool demandsContentProtection(SnapshotCalls& calls, const std::string& mountPoint) {
  const auto status = calls.statfs(mountPoint);
  return status && (status->flags & mntContentProtection) != 0;
}

VolumeInfo resolveVolume(Disks& disks, SnapshotCalls& calls, const std::string& uuid) {
  requireSession(disks);
  const std::string wanted = asciiLower(uuid);
  std::optional<VolumeInfo> found;
  for (const std::string& path : volumePathsToWalk(disks)) {
    const std::optional<DiskDescription> description = disks.describe(path);
    if (!description) continue;
    const std::optional<std::string> role = roleOf(*description);
    if (!isServedVolume(*description, role)) continue;
    if (!description->volumeUuid || description->volumeUuid->lower() != wanted) continue;
    VolumeInfo volume;
    volume.uuid = uuid;
    volume.name = description->volumeName.value_or("Untitled");
    volume.bsdName = description->mediaBsdName.value_or("");
    volume.mountPoint = description->volumePath.value_or(path);
    volume.role = role;
    volume.isAPFSData = isDataRole(role);
    volume.isProtected = demandsContentProtection(calls, volume.mountPoint);
    volume.isInternalDevice = description->deviceInternal.value_or(false);
    // A copied disk bears the UUIDs of its original: which of the two is meant can't be known.
    if (found && found->mountPoint != volume.mountPoint) {
      throw QuillmarkError::make(
          QuillmarkErrorCode::internalError,
          fmt::format(
              "Two mounted volumes have the UUID {}: {} and {}. One seems to be a copy of the other; unmount one "
              "of them.",
              uuid, found->mountPoint, volume.mountPoint));
    }
    found = std::move(volume);
  }
  if (found) return *found;
  requireSession(disks);  // one that was lost during the walk explains why nothing was found
  throw QuillmarkError::make(QuillmarkErrorCode::volumeNotFound, "No mounted APFS volume with UUID " + uuid);
}

}  // namespace quillmark
