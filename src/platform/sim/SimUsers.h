// SimUsers: a password database that tests write.
#pragma once

#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "platform/Users.h"

namespace quillmark::sim {

class SimUsers final : public Users {
 public:
  // The home's directory is made with it.
  void add(std::uint32_t uid, std::string name, const std::string& home = "/nonexistent") {
    if (home != "/nonexistent") directories_[home] = home;
    users_.push_back({uid, std::move(name), home});
  }
  // The path leads to the directory; an empty one takes away what it led to.
  void lead(const std::string& path, const std::string& directory) { directories_[path] = directory; }
  void take(std::uint32_t uid) {
    std::erase_if(users_, [&](const UserRecord& user) { return user.uid == uid; });
  }
  // Called while the database is read: to see who waits, and for what.
  void watchReading(std::function<void()> watcher) { watcher_ = std::move(watcher); }

  std::optional<std::string> userName(std::uint32_t uid) override {
    for (const UserRecord& user : users_) {
      if (user.uid == uid) return user.name;
    }
    return std::nullopt;
  }
  std::vector<UserRecord> listedUsers() override {
    if (watcher_) watcher_();
    return users_;
  }
  PersonIDs personIDs() override { return {.least = 1000, .most = 60000}; }
  std::vector<std::optional<std::string>> directoriesAt(const std::vector<std::string>& paths) override {
    std::vector<std::optional<std::string>> found;
    for (const std::string& path : paths) {
      const auto at = directories_.find(path);
      found.push_back(at == directories_.end() || at->second.empty() ? std::nullopt : std::optional(at->second));
    }
    return found;
  }

 private:
  std::vector<UserRecord> users_{{0, "root", "/root"}};
  std::map<std::string, std::string> directories_{{"/root", "/root"}};
  std::function<void()> watcher_;
};

}  // namespace quillmark::sim
