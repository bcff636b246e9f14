#include "snapshots/SafeFS.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>

#include "platform/NameText.h"
#include "platform/ThisProcess.h"
#include "platform/random.h"

namespace quillmark {
namespace {

// A longer path can't be named to the kernel, so that nobody could come back to what it names.
constexpr std::size_t longestPath = 4095;

struct SplitPath {
  std::string parent;
  std::string last;
};

// Slashes at the end and repeated ones count for nothing. "/" is its own parent; a bare name has an empty one.
SplitPath split(const std::string& path) {
  const std::size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return {path.empty() ? "" : "/", path.empty() ? "" : "/"};
  const std::size_t slash = path.find_last_of('/', end);
  if (slash == std::string::npos) return {"", path.substr(0, end + 1)};
  const std::size_t parentEnd = path.find_last_not_of('/', slash);
  return {parentEnd == std::string::npos ? "/" : path.substr(0, parentEnd + 1), path.substr(slash + 1, end - slash)};
}

}  // namespace

SafeFS::POSIXFailure::POSIXFailure(std::string operation, std::string component, int code)
    : Error("Quillmark.SafeFS.POSIXFailure", code,
            fmt::format("{} \"{}\" failed: {}", operation, component, errnoText(code))),
      operation_(std::move(operation)), component_(std::move(component)) {}

SafeFS::InvalidComponent::InvalidComponent(std::string component)
    : Error("Quillmark.SafeFS.InvalidComponent", 1, fmt::format("\"{}\" is not a single path component", component)),
      component_(std::move(component)) {}

bool SafeFS::isComponent(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string::npos && isNameText(name);
}

void SafeFS::validateComponent(const std::string& name) {
  if (!isComponent(name)) throw InvalidComponent(name);
}

SafeFS::Directory SafeFS::opened(const SysResult<int>& fd, const std::string& component) const {
  if (!fd) throw POSIXFailure("open directory", component, fd.error());
  return Directory(WorkDescriptor(work_, *fd));
}

SafeFS::Directory SafeFS::openDirectory(const std::string& path) const {
  return opened(work_.openDirectory(path), path);
}

std::pair<SafeFS::Directory, std::string> SafeFS::openParent(const std::string& path) const {
  SplitPath parts = split(path);
  validateComponent(parts.last);
  return {openDirectory(parts.parent), std::move(parts.last)};
}

SafeFS::Directory SafeFS::openChild(const std::string& name, const Directory& parent) const {
  validateComponent(name);
  return opened(work_.openChild(parent.fd(), name), name);
}

SafeFS::Directory SafeFS::createChild(const std::string& name, const Directory& parent, std::uint32_t mode) const {
  validateComponent(name);
  if (const SysStatus made = work_.mkdirat(parent.fd(), name, mode); !made) {
    throw POSIXFailure("create directory", name, made.error());
  }
  return openChild(name, parent);
}

void SafeFS::makeLevel(const std::string& name, const Directory& parent, std::uint32_t mode) const {
  const SysStatus made = work_.mkdirat(parent.fd(), name, mode);
  if (!made && made.error() != EEXIST) throw POSIXFailure("create directory", name, made.error());
}

SysResult<int> SafeFS::replaceByDirectory(const std::string& name, const Directory& parent, std::uint32_t mode) const {
  const SysStatus gone = work_.unlinkat(parent.fd(), name);
  if (!gone && gone.error() != ENOENT) throw POSIXFailure("replace non-directory at", name, gone.error());
  makeLevel(name, parent, mode);
  return work_.openChild(parent.fd(), name);
}

SafeFS::Directory SafeFS::ensureChild(const std::string& name, const Directory& parent, std::uint32_t mode,
                                      std::uint32_t uid, std::uint32_t gid) const {
  validateComponent(name);
  makeLevel(name, parent, mode);
  SysResult<int> fd = work_.openChild(parent.fd(), name);
  if (!fd && (fd.error() == ELOOP || fd.error() == ENOTDIR)) fd = replaceByDirectory(name, parent, mode);
  Directory directory = opened(fd, name);
  if (const SysStatus owned = work_.fchown(directory.fd(), uid, gid); !owned) {
    throw POSIXFailure("set owner of", name, owned.error());
  }
  if (const SysStatus permitted = work_.fchmod(directory.fd(), mode); !permitted) {
    throw POSIXFailure("set permissions of", name, permitted.error());
  }
  return directory;
}

SafeFS::Directory SafeFS::openCreating(const std::string& path, std::uint32_t mode,
                                       FunctionRef<void(const Directory&)> check) const {
  if (nameBytes(path).size() > longestPath) throw POSIXFailure("locate", path, ENAMETOOLONG);
  std::vector<std::string> missing;
  std::string deepest = path;
  while (!work_.lstat(deepest)) {
    SplitPath parts = split(deepest);
    if (parts.parent == deepest || parts.parent.empty() || parts.parent.front() != '/') {
      throw POSIXFailure("locate", path, ENOENT);
    }
    missing.push_back(std::move(parts.last));
    deepest = std::move(parts.parent);
  }
  Directory current = openDirectory(deepest);
  check(current);
  std::for_each(missing.rbegin(), missing.rend(), [&](const std::string& name) {
    validateComponent(name);
    makeLevel(name, current, mode);
    current = openChild(name, current);
  });
  return current;
}

std::optional<int> SafeFS::rename(const std::string& from, const Directory& fromParent, const std::string& to,
                                  const Directory& toParent, RenameMode mode) const {
  validateComponent(from);
  validateComponent(to);
  const SysStatus renamed = work_.rename(fromParent.fd(), from, toParent.fd(), to, mode);
  if (renamed) return std::nullopt;
  return renamed.error();
}

std::optional<StatRecord> SafeFS::lstatChild(const std::string& name, const Directory& parent) const {
  validateComponent(name);
  const SysResult<StatRecord> record = work_.fstatat(parent.fd(), name);
  if (!record) return std::nullopt;
  return *record;
}

std::optional<StatRecord> SafeFS::statDirectory(const Directory& directory) const {
  const SysResult<StatRecord> record = work_.fstat(directory.fd());
  if (!record) return std::nullopt;
  return *record;
}

// Through a descriptor of its own: one that is duplicated would share its position with every other reader's.
std::vector<std::string> SafeFS::list(const Directory& directory) const {
  const auto demand = [](const auto& result) {
    if (!result) throw POSIXFailure("enumerate", "directory", result.error());
  };
  const SysResult<int> fd = work_.openBeneath(directory.fd(), ".");
  demand(fd);
  const WorkDescriptor reader(work_, *fd);
  std::vector<std::string> names;
  for (;;) {
    SysResult<std::vector<ListedName>> some = work_.readNames(reader.get());
    demand(some);
    if (some->empty()) return names;
    for (ListedName& listed : *some) names.push_back(std::move(listed.name));
  }
}

}  // namespace quillmark
