// From a volume UUID to the mounted volume. Walks the mounted volumes afresh at every call.
// Threads: thread-safe.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Disks.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

class SnapshotCalls;

// Throws volumeNotFound, or internalError when the disk service can't be asked.
[[nodiscard]] VolumeInfo resolveVolume(Disks& disks, SnapshotCalls& calls, const std::string& uuid);

// The walk that resolving and the inventory share: the mounted volumes, with "/" and the data volume never missing.
[[nodiscard]] std::vector<std::string> volumePathsToWalk(Disks& disks);
// The role as the registry tells it: property "Role", else "Roles"; an empty array means "Data".
[[nodiscard]] std::optional<std::string> roleOf(const DiskDescription& description);
// What every walk passes over: another kind, read-only media, an internal volume of a role that isn't data.
[[nodiscard]] bool isServedVolume(const DiskDescription& description, const std::optional<std::string>& role);
[[nodiscard]] bool isDataRole(const std::optional<std::string>& role);
[[nodiscard]] bool demandsContentProtection(SnapshotCalls& calls, const std::string& mountPoint);

}  // namespace quillmark
