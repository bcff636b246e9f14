// Cache files that only root reads.
#pragma once

#include <string>
#include <string_view>

namespace quillmark {

class Posix;
class Random;

// The data whole under the path, mode 0600, in a directory of mode 0700. Throws Error when it can't be written.
void writeRootCacheFile(Posix& posix, Random& random, std::string_view data, const std::string& path);

}  // namespace quillmark
