#include "scheduling/StateFile.h"

#include <cerrno>

#include "base/Error.h"
#include "platform/Files.h"
#include "platform/posix.h"

namespace quillmark {
namespace {

// Far past what any of these files holds: what is larger is damage.
constexpr std::size_t mostBytes = std::size_t{16} << 20;

}  // namespace

StateFile::StateFile(Posix& posix, Random& random, const HostPaths& paths, const std::string& name)
    : posix_(posix), random_(random), directory_(paths.stateDirectory), path_(paths.state(name)) {}

bool StateFile::exists() const { return posix_.lstat(path_).ok(); }

std::optional<std::string> StateFile::read() const { return readFile(posix_, path_, mostBytes); }

void StateFile::secureDirectory() const {
  createDirectoriesDurably(posix_, directory_, 0700);
  setAttributes(posix_, directory_, 0700);
}

void StateFile::replace(std::string_view data) const {
  // What could not be read again is not written.
  if (data.size() > mostBytes) throw posixError("write", path_, EFBIG);
  writeAtomically(posix_, random_, path_, data, 0600);
  setAttributes(posix_, path_, 0600);
}

}  // namespace quillmark
