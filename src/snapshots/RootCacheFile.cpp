#include "snapshots/RootCacheFile.h"

#include "base/Error.h"
#include "platform/Files.h"
#include "platform/posix.h"

namespace quillmark {

void writeRootCacheFile(Posix& posix, Random& random, std::string_view data, const std::string& path) {
  const std::string directory = parentDirectory(path);
  // The directory is best effort: if it isn't there, writing the file tells.
  try {
    createDirectories(posix, directory, 0700);
  } catch (const Error&) {
  }
  (void)posix.chmod(directory, 0700);
  (void)posix.chown(directory, 0, 0);
  writeAtomically(posix, random, path, data, 0600);
  setAttributes(posix, path, 0600);
}

}  // namespace quillmark
