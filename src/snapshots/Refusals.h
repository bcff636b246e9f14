// Which volumes and snapshots an operation may touch at all, by role and by name.
// Errors: the refusals throw Error.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "snapshots/VolumeInfo.h"

namespace quillmark {

// Backup targets are only shown. action: "delete snapshots", "mount snapshots", ...
void refuseBackupVolume(const VolumeInfo& volume, std::string_view action);
// The operating system's own snapshots. verb: "mount", "compare".
void refuseOSSnapshot(const std::string& name, std::string_view verb);
[[nodiscard]] bool canCreateSnapshots(const std::optional<std::string>& role);

}  // namespace quillmark
