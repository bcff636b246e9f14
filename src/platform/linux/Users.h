// LinuxUsers: the password database by getpwuid_r(3).
#pragma once

#include "platform/Users.h"

namespace quillmark::os {

class LinuxUsers final : public Users {
 public:
  std::optional<std::string> userName(std::uint32_t uid) override;
};

}  // namespace quillmark::os
