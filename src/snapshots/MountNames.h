// Where snapshots are mounted, and which paths a client may name.
// Threads: pure but for the two questions, which ask the platform.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/Xid.h"
#include "platform/HostPaths.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

class SnapshotCalls;

// Letters, digits, blanks, ".", "_" and "-" of ASCII stay; each run of anything else becomes one "_".
[[nodiscard]] std::string sanitizeMountComponent(std::string_view text);
[[nodiscard]] std::string snapshotMountName(std::string_view volumeName, std::string_view uuid);
// "<user mount root>/<mount name>@snap-<xid>"
[[nodiscard]] std::string userMountPath(const HostPaths& paths, const VolumeInfo& volume, Xid xid);
// The path when a client may name it: a mount of ours directly below the user mount root.
[[nodiscard]] std::optional<std::string> acceptableMountPath(const HostPaths& paths, const std::string& path);

[[nodiscard]] bool isMountPoint(SnapshotCalls& calls, const std::string& path);
// A read-only mount of a snapshot.
[[nodiscard]] bool isSnapshotMount(SnapshotCalls& calls, const std::string& path);

}  // namespace quillmark
