// LinuxUsers: the password database by getpwuid_r(3) and getpwent(3), and the bounds of people by login.defs(5).
#pragma once

#include "platform/Users.h"
#include "platform/linux/Threads.h"

namespace quillmark::os {

// UID_MIN and UID_MAX of a text like login.defs(5), the usual ones where it doesn't tell them.
[[nodiscard]] PersonIDs personIDsIn(const std::string& loginDefs);

class LinuxUsers final : public Users {
 public:
  std::optional<std::string> userName(std::uint32_t uid) override;
  std::vector<UserRecord> listedUsers() override;
  PersonIDs personIDs() override;
  std::vector<std::optional<std::string>> directoriesAt(const std::vector<std::string>& paths) override;

 private:
  NativeMutex iteration_;  // getpwent(3) has one position for the whole process
};

}  // namespace quillmark::os
