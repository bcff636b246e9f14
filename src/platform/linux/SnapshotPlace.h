// The directory at the top level that holds our snapshots of one volume.
// Threads: pure but for the disk.
#pragma once

#include "base/SysResult.h"
#include "base/UniqueFd.h"
#include "base/Uuid.h"

namespace quillmark::os {

// Opens it, made if it is missing, below an open top level. EPERM unless it and the directory above it are what we would
// have made: plain directories of the top level, owner 0, mode 0700. A set-group-id bit, as a directory inherits it, is taken away.
// Follows no link.
[[nodiscard]] SysResult<UniqueFd> openPlace(int topLevel, const Uuid& volume);

}  // namespace quillmark::os
