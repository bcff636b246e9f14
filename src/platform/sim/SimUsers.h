// SimUsers: a password database that tests write.
#pragma once

#include <map>

#include "platform/Users.h"

namespace quillmark::sim {

class SimUsers final : public Users {
 public:
  void add(std::uint32_t uid, std::string name) { names_[uid] = std::move(name); }
  std::optional<std::string> userName(std::uint32_t uid) override {
    const auto found = names_.find(uid);
    return found == names_.end() ? std::nullopt : std::optional(found->second);
  }

 private:
  std::map<std::uint32_t, std::string> names_{{0, "root"}};
};

}  // namespace quillmark::sim
