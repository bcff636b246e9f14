// SafeFSWorld: a SafeFS over a temporary tree, with what tests put there and find there.
#pragma once

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "platform/sim/Draws.h"
#include "platform/sim/SimFileWork.h"
#include "platform/sim/SimThisProcess.h"
#include "snapshots/SafeFS.h"
#include "tests/base/Failures.h"

namespace quillmark {

class SafeFSWorld final {
 public:
  [[nodiscard]] std::string path(const std::string& name) const { return work.root() + "/" + name; }
  void put(const std::string& name, std::string_view contents = {}) const { std::ofstream(path(name)) << contents; }
  void makeDirectory(const std::string& name) const { std::filesystem::create_directories(path(name)); }
  void link(const std::string& target, const std::string& name) const {
    std::filesystem::create_symlink(target, path(name));
  }
  [[nodiscard]] std::string contents(const std::string& name) const {
    std::ifstream file(path(name));
    return {std::istreambuf_iterator<char>(file), {}};
  }
  // Every item below a directory, with its kind: "a/ a/b a/l@".
  [[nodiscard]] std::string tree(const std::string& name = "") const {
    std::vector<std::string> items;
    for (const auto& item : std::filesystem::recursive_directory_iterator(path(name))) {
      std::string text = item.path().lexically_relative(path(name)).string();
      text += item.is_symlink() ? "@" : item.is_directory() ? "/" : "";
      items.push_back(std::move(text));
    }
    std::sort(items.begin(), items.end());
    return join(items);
  }
  [[nodiscard]] SafeFS::Directory top() const { return files.openDirectory(work.root()); }

  mutable sim::SimFileWork work;
  mutable sim::Draws draws{7};
  mutable sim::SimThisProcess process{4711};
  const SafeFS files{work, draws, process};

 private:
  static std::string join(const std::vector<std::string>& items) {
    std::string all;
    for (const std::string& item : items) all += (all.empty() ? "" : " ") + item;
    return all;
  }
};

}  // namespace quillmark
