#include "platform/linux/MountNamespaces.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <unordered_set>

#include "base/UniqueFd.h"

namespace quillmark::os {
namespace {

// A process may end between being listed and being asked, and one that ended has no mounts.
bool isGone(int error) { return error == ENOENT || error == ESRCH || error == EINVAL; }

// 0 when it isn't told: of a process that ended, or one with more rights than we have. Its table may be open even so.
ino_t mountNamespace(const std::string& process) {
  struct stat status;
  return ::stat((process + "/ns/mnt").c_str(), &status) == 0 ? status.st_ino : 0;
}

SysResult<std::string> readAll(const std::string& path) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.valid()) return Errno{errno};
  std::string text;
  char buffer[65536];
  for (ssize_t count; (count = ::read(file.get(), buffer, sizeof buffer)) != 0;) {
    if (count < 0 && errno != EINTR) return Errno{errno};
    if (count > 0) text.append(buffer, static_cast<std::size_t>(count));
  }
  return text;
}

bool isProcess(const char* name) {
  return *name &&
         std::all_of(name, name + std::char_traits<char>::length(name), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

SysResult<bool> isMountedAnywhere(DeviceNumber device, btrfs::SubvolumeId subvolume) {
  const auto own = MountTable::read();
  if (!own) return Errno{own.error()};
  if (own->isMounted(device, subvolume)) return true;
  struct Close {
    void operator()(DIR* directory) const { ::closedir(directory); }
  };
  const std::unique_ptr<DIR, Close> processes(::opendir("/proc"));
  if (!processes) return Errno{errno};
  std::unordered_set<ino_t> seen;
  if (const ino_t ownNamespace = mountNamespace("/proc/self")) seen.insert(ownNamespace);
  while (const dirent* entry = ::readdir(processes.get())) {
    if (!isProcess(entry->d_name)) continue;
    const std::string process = std::string("/proc/") + entry->d_name;
    const ino_t nameSpace = mountNamespace(process);
    if (nameSpace != 0 && seen.contains(nameSpace)) continue;
    const auto text = readAll(process + "/mountinfo");
    if (!text && !isGone(text.error())) return Errno{text.error()};
    if (!text) continue;  // another process of that namespace may still tell
    if (nameSpace != 0) seen.insert(nameSpace);
    if (MountTable::parse(*text).isMounted(device, subvolume)) return true;
  }
  return false;
}

}  // namespace quillmark::os
