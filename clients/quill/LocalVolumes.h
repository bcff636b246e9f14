// LocalVolumes: what quill itself sees of the volumes of this machine, without asking the helper.
// Threads: one thread at a time.
// Errors:  none; what can't be found out is left out.
#pragma once

#include <string>
#include <vector>

#include "snapshots/APFSVolume.h"

namespace quillmark::cli {

// Where a path leads.
struct Place {
  enum class Kind {
    nothing,          // there is no such path
    elsewhere,        // on a file system that isn't served
    volumes,          // on a volume, or the device of one or several
    nestedSubvolume,  // below a volume's mount point, but in a subvolume that its snapshots leave out
  } kind = Kind::nothing;
  std::vector<std::string> mountPaths;  // of the volumes
};

class LocalVolumes {
 public:
  virtual ~LocalVolumes() = default;
  // Sorted for display; detailed runs diskutil.
  [[nodiscard]] virtual std::vector<APFSVolume> list(bool detailed) = 0;
  // Of a file, a directory, or the device node of a file system; a name as text.
  [[nodiscard]] virtual Place at(const std::string& path) = 0;
  // Of the current directory.
  [[nodiscard]] virtual Place here() = 0;
  [[nodiscard]] virtual std::vector<std::string> mountPoints() = 0;
  // Against the current directory, without "." and ".." and doubled slashes; symbolic links aren't followed.
  [[nodiscard]] virtual std::string absolutePath(const std::string& path) = 0;
};

}  // namespace quillmark::cli
