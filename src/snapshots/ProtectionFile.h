// The durable replacement of the file of protected snapshots.
#pragma once

#include <string>
#include <string_view>

namespace quillmark {

class Posix;
class Random;

// On disk on return, whatever happens next. Throws Error that names the step and the path; the path then holds the old
// content or the new, and no temporary file stays unless the process ended.
void replaceProtectionFile(Posix& posix, Random& random, const std::string& path, std::string_view data);

}  // namespace quillmark
