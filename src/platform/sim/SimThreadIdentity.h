// SimThreadIdentity: verdicts that tests write, with the time they take. What lies above an item that was put is there too,
// and everybody's; so is whatever was never spoken of, as far as rights go.
#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "platform/ThreadIdentity.h"
#include "platform/dispatch.h"

namespace quillmark::sim {

class SimThreadIdentity final : public ThreadIdentity {
 public:
  struct Item {
    // Of the identity that asks and the mode; empty: everybody may do everything.
    std::function<bool(const UserIdentity&, unsigned mode)> allows = {};
    std::chrono::nanoseconds lookup{0};  // how long finding it takes
    std::chrono::nanoseconds access{0};
  };

  explicit SimThreadIdentity(Dispatch& dispatch) : dispatch_(dispatch) {}

  void put(const std::string& path, Item item) { items_[path] = std::move(item); }
  void putLink(const std::string& path, std::string target) { links_[path] = std::move(target); }
  void remove(const std::string& path) { items_.erase(path); }
  void open(int fd, Item item) { directories_[fd] = std::move(item); }
  void addUser(UserIdentity user) { users_[user.uid] = std::move(user); }
  void mount(const std::string& mountPoint) { mounts_.insert(mountPoint); }
  // The errno of what fails; 0: works.
  int lookupError = 0;
  int assumeError = 0;
  int duplicateError = 0;

  // The system calls so far.
  [[nodiscard]] int calls() const { return calls_; }
  [[nodiscard]] int openNow() const { return static_cast<int>(opened_.size()); }
  // What a descriptor of a look-up names.
  [[nodiscard]] std::string pathOf(int fd) const { return opened_.at(fd).path; }

  std::string volumeKey(const std::string& path) override {
    std::string key = "/";
    for (const std::string& mount : mounts_) {
      if ((path == mount || path.starts_with(mount + "/")) && mount.size() > key.size()) key = mount;
    }
    return key;
  }
  std::optional<UserIdentity> userIdentity(std::uint32_t uid) override {
    const auto found = users_.find(uid);
    return found == users_.end() ? std::nullopt : std::optional(found->second);
  }
  SysStatus assume(const UserIdentity& identity) override {
    ++calls_;
    if (assumeError != 0) return Errno{assumeError};
    assumed_ = identity;
    return {};
  }
  SysResult<int> openVolume(const std::string& mountPoint) override { return made(mountPoint, assumed_); }
  SysResult<Step> step(int directory, const std::string& name) override {
    ++calls_;
    const Opened from = opened_.at(directory);
    const std::string path = (from.path == "/" ? "" : from.path) + "/" + name;
    if (lookupError != 0) return Errno{lookupError};
    if (mounts_.contains(path)) return Errno{EXDEV};
    if (const auto link = links_.find(path); link != links_.end()) {
      return Step{made(path, from.identity), link->second};
    }
    if (!isThere(path)) return Errno{ENOENT};
    sleepFor(dispatch_, itemAt(path).lookup);
    return Step{made(path, from.identity), std::nullopt};
  }
  SysStatus permits(int fd, unsigned mode) override {
    ++calls_;
    const Opened opened = opened_.at(fd);
    const Item item = opened.item ? *opened.item : itemAt(opened.path);
    const UserIdentity identity = opened.item ? assumed_ : opened.identity;
    sleepFor(dispatch_, item.access);
    if (item.allows && !item.allows(identity, mode)) return Errno{EACCES};
    return {};
  }
  SysResult<int> duplicate(int fd) override {
    if (duplicateError != 0) return Errno{duplicateError};
    const int second = made({}, {});
    opened_[second].item = directories_.at(fd);
    return second;
  }
  void close(int fd) override { opened_.erase(fd); }

 private:
  struct Opened {
    std::string path;
    UserIdentity identity;     // of the thread that looked it up
    std::optional<Item> item;  // of a duplicate
  };

  int made(std::string path, UserIdentity identity) {
    opened_[++made_] = {std::move(path), std::move(identity), {}};
    return made_;
  }
  bool isThere(const std::string& path) const {
    const auto isOrLeadsTo = [&](const std::string& other) { return other == path || other.starts_with(path + "/"); };
    return std::any_of(items_.begin(), items_.end(), [&](const auto& item) { return isOrLeadsTo(item.first); }) ||
           std::any_of(links_.begin(), links_.end(), [&](const auto& link) { return isOrLeadsTo(link.first); });
  }
  Item itemAt(const std::string& path) const {
    const auto item = items_.find(path);
    return item == items_.end() ? Item{} : item->second;
  }

  Dispatch& dispatch_;
  std::map<std::string, Item> items_;
  std::map<std::string, std::string> links_;
  std::map<int, Item> directories_;
  std::map<int, Opened> opened_;
  std::map<std::uint32_t, UserIdentity> users_;
  std::set<std::string> mounts_;
  UserIdentity assumed_;  // of the thread that asks next: none waits between taking it and asking
  int calls_ = 0;
  int made_ = 1000;
};

}  // namespace quillmark::sim
