#include <fmt/format.h>

#include <cerrno>

#include "snapshots/SafeFS.h"

namespace quillmark {
namespace {

constexpr std::uint32_t elevatingBits = 06000;
constexpr std::string_view capabilities = "security.capability";

// What tells of the place, not of the file: lists that are copied as such, properties of the file system, our own state.
bool staysBehind(std::string_view attribute) {
  return attribute.starts_with("system.posix_acl_") || attribute.starts_with("btrfs.") ||
         attribute.starts_with("trusted.com.harrowfern.");
}

void demand(int error, const char* operation, const char* component) {
  if (error != 0) throw SafeFS::POSIXFailure(operation, component, error);
}

}  // namespace

void SafeFS::copyAttributes(int source, int destination, Elevation elevation) const {
  const SysResult<std::vector<std::string>> names = work_.flistxattr(source);
  demand(names.error(), "list the extended attributes of", "source");
  for (const std::string& name : *names) {
    if (staysBehind(name) || (elevation == Elevation::dropped && name == capabilities)) continue;
    const SysResult<std::string> value = work_.fgetxattr(source, name);
    if (value.error() == ENODATA) continue;
    if (!value) throw POSIXFailure(fmt::format("read extended attribute {} of", name), "source", value.error());
    const SysStatus set = work_.fsetxattr(destination, name, *value);
    if (!set) throw POSIXFailure(fmt::format("write extended attribute {} to", name), "destination", set.error());
  }
}

// The owner goes first, since a change of owner takes file capabilities away; the mode after the list, whose mask its
// group bits are, so that the owning group never has more than the list gives it; immutable last.
void SafeFS::copyMetadata(int source, int destination, Elevation elevation) const {
  const SysResult<StatRecord> facts = work_.fstat(source);
  demand(facts.error(), "read metadata of", "source");
  demand(work_.fchown(destination, facts->uid, facts->gid).error(), "set owner of", "destination");
  copyAttributes(source, destination, elevation);
  // Empty for a source without a list, which takes an inherited one away from the copy.
  const SysResult<AccessControlList> list = work_.accessControlList(source);
  demand(list.error(), "copy the access control list of", "source");
  demand(work_.setAccessControlList(destination, *list).error(), "copy the access control list of", "destination");
  const std::uint32_t mode = elevation == Elevation::dropped ? facts->mode & ~elevatingBits : facts->mode;
  demand(work_.fchmod(destination, mode).error(), "set permissions of", "destination");
  (void)work_.futimens(destination, facts->accessed, facts->modified);
  const SysResult<std::uint32_t> flags = work_.flags(source);
  if (flags && *flags != 0) (void)work_.setFlags(destination, *flags);
}

}  // namespace quillmark
