// The two homes of what hangs on snapshots: an attribute of the volume, and a file that only root reads.
// Threads: as the facilities given.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/SysResult.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

class Posix;
class Random;
class VolumeAttributes;

// Far past what people write; what is larger is damage.
inline constexpr std::size_t maxStoreFileBytes = std::size_t{16} << 20;

// An absent value removes the attribute, and is content to find it gone.
[[nodiscard]] SysStatus writeVolumeAttribute(VolumeAttributes& attributes, const VolumeInfo& volume,
                                             const std::string& name, const std::optional<std::string>& value);

// Absent when there is no file. Throws Error.
[[nodiscard]] std::optional<std::string> readStoreFile(Posix& posix, const std::string& path);
// Makes the file's directory, mode 0700, so that it outlives a power cut. Throws Error.
void createStoreDirectory(Posix& posix, const std::string& path);
// The data whole under the path, mode 0600, owner 0; on disk on return. Throws Error, and then the path holds the old
// content or the new.
void writeStoreFile(Posix& posix, Random& random, const std::string& path, std::string_view data);

}  // namespace quillmark
