#include "platform/linux/Users.h"

#include <pwd.h>

#include <cerrno>
#include <vector>

#include "platform/NameText.h"

namespace quillmark::os {

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

}  // namespace quillmark::os
