// Users: the password database.
// Threads: thread-safe; may wait for a directory service.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quillmark {

class Users {
 public:
  virtual ~Users() = default;
  [[nodiscard]] virtual std::optional<std::string> userName(std::uint32_t uid) = 0;
};

}  // namespace quillmark
