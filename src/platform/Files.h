// File operations composed of Posix calls: directories with their parents, whole files in and out.
// Threads: as the Posix given.
// Errors:  throw Error in the POSIX domain, naming the call and the path.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quillmark {

class Posix;
class Random;

struct Ownership {
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
};

[[nodiscard]] std::string parentDirectory(const std::string& path);

// Makes the directory with this mode and owner, and its missing parents as root's, mode 0755. One that is there already
// is accepted as it is.
void createDirectories(Posix& posix, const std::string& path, std::uint32_t mode, Ownership owner = {});

// The same, and what it makes outlives a power cut: each new name is synced before the next one is made.
void createDirectoriesDurably(Posix& posix, const std::string& path, std::uint32_t mode, Ownership owner = {});

// The names in the directory are on disk when it returns.
void syncNamesIn(Posix& posix, const std::string& path);

// Absent when the file doesn't exist. Past the limit it fails with EFBIG.
[[nodiscard]] std::optional<std::string> readFile(Posix& posix, const std::string& path,
                                                  std::size_t limit = std::size_t{1} << 30);

// Through a temporary file in the same directory and a rename: the path holds the old content or the new, whole. The
// data is on disk before it takes the name, and the name when it returns. On failure no temporary file stays; the path
// may hold the new content then if only the directory couldn't be synced.
void writeAtomically(Posix& posix, Random& random, const std::string& path, std::string_view data, std::uint32_t mode);

// Whether this is the name of such a temporary file. One that is there when nobody writes was left by a process that died.
[[nodiscard]] bool isTemporaryName(std::string_view name);

// Sets mode and owner.
void setAttributes(Posix& posix, const std::string& path, std::uint32_t mode, Ownership owner = {});

}  // namespace quillmark
