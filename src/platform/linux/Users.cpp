#include "platform/linux/Users.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <fstream>
#include <sstream>

#include "platform/NameText.h"
#include "platform/linux/FileSystemStatus.h"
#include "platform/linux/MountTable.h"

namespace quillmark::os {
namespace {

// The administrator's own comes first; where there is none, some systems keep the vendor's.
constexpr const char* loginDefsPaths[] = {"/etc/login.defs", "/usr/etc/login.defs"};

// Decimal, octal or hexadecimal, as strtoul(3) reads it.
std::optional<std::uint32_t> idIn(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    text.remove_prefix(2);
    base = 16;
  } else if (text.size() > 1 && text.starts_with('0')) {
    base = 8;
  }
  std::uint32_t id = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id, base);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(id) : std::nullopt;
}

bool isDirectory(const std::string& path) {
  struct stat facts;
  return ::lstat(nameBytes(path).c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

std::optional<std::string> directoryAt(const MountTable& table, const std::string& path) {
  const auto resolved = resolvedPath(table, path);
  if (!resolved) return std::nullopt;
  const MountEntry* holder = table.holder(*resolved);
  if (!holder) return std::nullopt;
  if (holder->answersAlways() && holder->isReachable && !isDirectory(*resolved)) return std::nullopt;
  return *resolved;
}

}  // namespace

PersonIDs personIDsIn(const std::string& loginDefs) {
  PersonIDs bounds{.least = 1000, .most = 60000};
  std::istringstream lines(loginDefs);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string key, value;
    words >> key >> value;
    const auto id = idIn(value);
    if (key == "UID_MIN" && id) bounds.least = *id;
    if (key == "UID_MAX" && id) bounds.most = *id;
  }
  return bounds;
}

std::optional<std::string> LinuxUsers::userName(std::uint32_t uid) {
  constexpr std::size_t largestRecord = 1024 * 1024;
  for (std::size_t size = 1024; size <= largestRecord; size *= 4) {
    std::vector<char> buffer(size);
    passwd record;
    passwd* found = nullptr;
    int error;
    do {
      error = ::getpwuid_r(uid, &record, buffer.data(), buffer.size(), &found);
    } while (error == EINTR);
    if (error == ERANGE) continue;
    if (!found || !found->pw_name) return std::nullopt;
    return nameText(found->pw_name);
  }
  return std::nullopt;
}

std::vector<UserRecord> LinuxUsers::listedUsers() {
  std::vector<UserRecord> users;
  NativeLock lock(iteration_);
  ::setpwent();
  while (const passwd* record = ::getpwent()) {
    if (!record->pw_name || !record->pw_dir) continue;
    users.push_back({record->pw_uid, nameText(record->pw_name), nameText(record->pw_dir)});
  }
  ::endpwent();
  return users;
}

PersonIDs LinuxUsers::personIDs() {
  for (const char* path : loginDefsPaths) {
    std::ifstream file(path);
    if (!file) continue;
    std::ostringstream text;
    text << file.rdbuf();
    return personIDsIn(text.str());
  }
  return personIDsIn("");
}

std::vector<std::optional<std::string>> LinuxUsers::directoriesAt(const std::vector<std::string>& paths) {
  std::vector<std::optional<std::string>> directories(paths.size());
  const auto table = MountTable::read();
  if (!table) return directories;
  for (std::size_t i = 0; i < paths.size(); ++i) directories[i] = directoryAt(*table, paths[i]);
  return directories;
}

}  // namespace quillmark::os
