#include "snapshots/StoreHomes.h"

#include <cerrno>

#include "base/Error.h"
#include "platform/Files.h"
#include "platform/VolumeAttributes.h"
#include "platform/posix.h"

namespace quillmark {

SysStatus writeVolumeAttribute(VolumeAttributes& attributes, const VolumeInfo& volume, const std::string& name,
                               const std::optional<std::string>& value) {
  const auto opened = attributes.open(volume.mountPoint, volume.key());
  if (!opened) return Errno{opened.error()};
  if (value) return (*opened)->write(name, *value);
  const SysStatus removed = (*opened)->remove(name);
  return removed.error() == ENODATA ? SysStatus() : removed;
}

std::optional<std::string> readStoreFile(Posix& posix, const std::string& path) {
  return readFile(posix, path, maxStoreFileBytes);
}

void createStoreDirectory(Posix& posix, const std::string& path) {
  createDirectoriesDurably(posix, parentDirectory(path), 0700);
}

void writeStoreFile(Posix& posix, Random& random, const std::string& path, std::string_view data) {
  if (data.size() > maxStoreFileBytes) throw posixError("write", path, EFBIG);
  createStoreDirectory(posix, path);
  writeAtomically(posix, random, path, data, 0600);
  setAttributes(posix, path, 0600);
}

}  // namespace quillmark
