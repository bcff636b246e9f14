// Extended attributes, and the access control lists that the kernel shows as two of them (xattr(7), acl(5)).
#include <linux/limits.h>
#include <sys/xattr.h>

#include <array>
#include <cerrno>

#include "platform/NameText.h"
#include "platform/linux/FileWork.h"

namespace quillmark::os {
namespace {

constexpr const char* accessList = "system.posix_acl_access";
constexpr const char* defaultList = "system.posix_acl_default";

// No list of names and no value is larger than the kernel's limit, so that one call fetches either whole.
static_assert(XATTR_LIST_MAX == XATTR_SIZE_MAX);
using AttributeBuffer = std::array<char, XATTR_SIZE_MAX>;

bool isUsable(const std::string& bytes) { return !bytes.empty() && bytes.find('\0') == std::string::npos; }

// Absent where there is none, or can be none.
SysResult<std::optional<std::string>> listCalled(int fd, const char* name) {
  AttributeBuffer buffer;
  const ssize_t size = ::fgetxattr(fd, name, buffer.data(), buffer.size());
  if (size >= 0) return std::optional(std::string(buffer.data(), static_cast<std::size_t>(size)));
  if (errno == ENODATA || errno == EOPNOTSUPP) return std::optional<std::string>();
  return Errno{errno};
}

SysStatus setListCalled(int fd, const char* name, const std::optional<std::string>& list) {
  if (list) {
    if (::fsetxattr(fd, name, list->data(), list->size(), 0) != 0) return Errno{errno};
  } else if (::fremovexattr(fd, name) != 0 && errno != ENODATA && errno != EOPNOTSUPP) {
    return Errno{errno};
  }
  return {};
}

}  // namespace

SysResult<std::vector<std::string>> LinuxFileWork::flistxattr(int fd) {
  AttributeBuffer buffer;
  const ssize_t size = ::flistxattr(fd, buffer.data(), buffer.size());
  if (size < 0) return Errno{errno};
  std::vector<std::string> names;
  std::string_view left(buffer.data(), static_cast<std::size_t>(size));
  while (!left.empty()) {
    const std::size_t end = std::min(left.find('\0'), left.size());
    if (end > 0) names.push_back(nameText(left.substr(0, end)));
    left.remove_prefix(std::min(end + 1, left.size()));
  }
  return names;
}

SysResult<std::string> LinuxFileWork::fgetxattr(int fd, const std::string& name) {
  const std::string bytes = nameBytes(name);
  if (!isUsable(bytes)) return Errno{EINVAL};
  AttributeBuffer buffer;
  const ssize_t size = ::fgetxattr(fd, bytes.c_str(), buffer.data(), buffer.size());
  if (size < 0) return Errno{errno};
  return std::string(buffer.data(), static_cast<std::size_t>(size));
}

SysStatus LinuxFileWork::fsetxattr(int fd, const std::string& name, std::string_view value) {
  const std::string bytes = nameBytes(name);
  if (!isUsable(bytes)) return Errno{EINVAL};
  if (::fsetxattr(fd, bytes.c_str(), value.data(), value.size(), 0) != 0) return Errno{errno};
  return {};
}

SysResult<AccessControlList> LinuxFileWork::accessControlList(int fd) {
  const SysResult<std::optional<std::string>> access = listCalled(fd, accessList);
  if (!access) return Errno{access.error()};
  const SysResult<std::optional<std::string>> inherited = listCalled(fd, defaultList);
  if (!inherited) return Errno{inherited.error()};
  return AccessControlList{.access = *access, .inherited = *inherited};
}

SysStatus LinuxFileWork::setAccessControlList(int fd, const AccessControlList& list) {
  if (const SysStatus set = setListCalled(fd, accessList, list.access); !set) return set;
  return setListCalled(fd, defaultList, list.inherited);
}

}  // namespace quillmark::os
