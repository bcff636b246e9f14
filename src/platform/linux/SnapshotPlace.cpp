#include "platform/linux/SnapshotPlace.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "platform/linux/SnapshotNames.h"

namespace quillmark::os {
namespace {

constexpr mode_t placeMode = 0700;

// A subvolume's root, and the stump that stands for a nested one in a snapshot, have fixed inode numbers.
bool isPlainDirectory(const struct stat& status) {
  return status.st_ino != btrfs::rootInode && status.st_ino != 2 && S_ISDIR(status.st_mode);
}

// Lets nobody in but root; a parent's set-group-id bit and a umask make less than was asked for of a new directory.
bool isRootsAlone(const struct stat& status) {
  return status.st_uid == 0 && (status.st_mode & 07777 & ~(placeMode | S_ISGID)) == 0;
}

SysStatus repair(int directory, const struct stat& status) {
  if (status.st_gid != 0 && ::fchown(directory, 0, 0) != 0) return Errno{errno};
  if ((status.st_mode & 07777) != placeMode && ::fchmod(directory, placeMode) != 0) return Errno{errno};
  return {};
}

SysResult<UniqueFd> openOwnDirectory(int parent, const std::string& name) {
  if (::mkdirat(parent, name.c_str(), placeMode) != 0 && errno != EEXIST) return Errno{errno};
  UniqueFd directory(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory.valid()) return Errno{errno == ELOOP || errno == ENOTDIR ? EPERM : errno};
  struct stat status, above;
  if (::fstat(directory.get(), &status) != 0 || ::fstat(parent, &above) != 0) return Errno{errno};
  if (!isPlainDirectory(status) || !isRootsAlone(status) || status.st_dev != above.st_dev) return Errno{EPERM};
  if (const SysStatus repaired = repair(directory.get(), status); !repaired) return Errno{repaired.error()};
  return directory;
}

}  // namespace

SysResult<UniqueFd> openPlace(int topLevel, const Uuid& volume) {
  auto places = openOwnDirectory(topLevel, std::string(placesDirectory));
  if (!places) return places;
  return openOwnDirectory(places->get(), volume.lower());
}

}  // namespace quillmark::os
