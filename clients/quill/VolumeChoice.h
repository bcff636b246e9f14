// Which volume a command works on.
// Threads: as LocalVolumes.
#pragma once

#include <optional>
#include <string>

#include "quill/LocalVolumes.h"

namespace quillmark::cli {

// The UUID of the volume that the text means: a UUID (also one that isn't seen here: the helper knows better), a device
// ("disk1s1", "/dev/disk1s1", the node of a file system with one volume), a name, or any path on the volume. Without a
// text the current directory decides, or there being just one volume.
// Throws volumeNotFound, or wrongUse when several are meant, both with the candidates.
[[nodiscard]] std::string chooseVolume(LocalVolumes& volumes, const std::optional<std::string>& text);

}  // namespace quillmark::cli
