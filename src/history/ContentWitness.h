// A number that changes when the content of a file is rewritten, where size and time say nothing.
// Threads: as the directory that is asked.
#pragma once

#include <cstdint>
#include <string>

#include "platform/DirectoryReader.h"

namespace quillmark {

// Of a regular file. The file system's own count of writes, else a hash of where the file lies on the device, else its
// change time; 0 when none can be had. Content that would have to be fetched isn't touched.
[[nodiscard]] std::uint64_t contentWitness(OpenDirectory& directory, const std::string& name, const FileFacts& facts);
// The same of a root.
[[nodiscard]] std::uint64_t contentWitness(OpenTree& tree);

}  // namespace quillmark
