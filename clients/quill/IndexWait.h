// Waiting until a snapshot is indexed, with the person watching.
// Threads: as the commands.
// Errors:  notIndexed when it won't be, with the reason that the helper tells; those of the connection.
#pragma once

#include <chrono>
#include <string>

#include "quill/IndexFollower.h"
#include "quill/QuillCommands.h"

namespace quillmark::cli {

// Throws notIndexed where nothing is indexed by itself.
void requireIndexing(CommandContext& context, const std::string& volumeUUID);

void waitForIndex(CommandContext& context, IndexFollower& follower, const std::string& volumeUUID,
                  const std::string& snapshotName);

// For a person who isn't kept waiting for it: shows what is to be seen within a moment or two.
void glanceAtIndex(CommandContext& context, const std::string& volumeUUID, const std::string& snapshotName);

}  // namespace quillmark::cli
