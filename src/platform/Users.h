// Users: the password database, and the directories that it names.
// Threads: thread-safe; may wait for a directory service.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quillmark {

struct UserRecord {
  std::uint32_t uid = 0;
  std::string name;
  std::string home;  // as it is written there
};

// The user IDs of people; those outside belong to services.
struct PersonIDs {
  std::uint32_t least = 0;
  std::uint32_t most = 0;
};

class Users {
 public:
  virtual ~Users() = default;
  [[nodiscard]] virtual std::optional<std::string> userName(std::uint32_t uid) = 0;
  // Every user that the database lists, in its order. A directory service may list none of its own.
  [[nodiscard]] virtual std::vector<UserRecord> listedUsers() = 0;
  [[nodiscard]] virtual PersonIDs personIDs() = 0;
  // For each absolute path the directory that it leads to, with all symbolic links resolved; absent where there is none.
  // File systems that may never answer, such as a network's, aren't asked: what is said to lie there is believed.
  [[nodiscard]] virtual std::vector<std::optional<std::string>> directoriesAt(
      const std::vector<std::string>& paths) = 0;
};

}  // namespace quillmark
