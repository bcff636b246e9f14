// What restores that were cut off left at the top of volumes.
// Threads: any; may take long.
// Errors:  none; what can't be removed stays.
#pragma once

namespace quillmark {

struct Platform;

void sweepTemporaryDirectories(const Platform& platform);

}  // namespace quillmark
