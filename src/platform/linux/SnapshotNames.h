// The names and numbers by which snapshots of a btrfs volume are listed. Shared by the service and diskutil, which must
// agree to the letter.
// Threads: pure.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/SysResult.h"
#include "base/Uuid.h"
#include "base/Xid.h"
#include "platform/linux/BtrfsCalls.h"

namespace quillmark::os {

// Where our snapshots stand: "<places>/<volume UUID>/<snapshot name>" at the top level.
inline constexpr std::string_view placesDirectory = ".quillmark";

// Ids come back after a remount and transactions are shared by snapshots made side by side; the pair of both is unique,
// never returns and ascends. Never 0, as transactions are counted from 1.
[[nodiscard]] Xid snapshotXid(const btrfs::Subvolume& snapshot);

// A path at the top level, as bytes without a "/" in front. `whole` is false when only its last part could be found out.
struct TopLevelPath {
  std::string bytes;
  bool whole = true;
};

// A snapshot in our place for its volume bears its bare name. Any other is foreign: ":" and its path with "/" as ":",
// ":" and "%" of the names as "%3A" and "%25"; past 240 bytes "::", 16 digits of its UUID, ":" and the end of that.
// One-to-one: no component is empty, so "::" begins no whole path, and a bare name that begins with ":" is told as
// foreign. So a foreign name never looks like one of ours or of the system's.
[[nodiscard]] std::string listedName(const TopLevelPath& path, const Uuid& volume, const Uuid& snapshot);

// The file name, as bytes, of a snapshot of ours with this listed name; EINVAL or ENAMETOOLONG for what can be none.
[[nodiscard]] SysResult<std::string> placeFileName(std::string_view name);

}  // namespace quillmark::os
