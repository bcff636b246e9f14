// SimTree: what a simulated volume or snapshot holds. A copy is cheap and stays as it is, whatever becomes of the first.
//
//   SimTree tree;
//   tree.write("/home/me/letter", 120);  // makes the directories above
//   const SimTree before = tree;
//   tree.rename("/home/me", "/home/you");
// Threads: thread-compatible; copies are independent.
// Errors:  aborts for what a file system would refuse: it is the test that errs.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "platform/FileFacts.h"

namespace quillmark::sim {

class SimTree final {
 public:
  using Children = std::map<std::string, FileFacts>;  // by name
  SimTree();

  void makeDirectory(const std::string& path);
  // Makes the file, or writes it anew: another generation and a later time.
  void write(const std::string& path, std::int64_t size);
  void makeLink(const std::string& path);  // a symbolic one
  // Another name for a file.
  void link(const std::string& from, const std::string& to);
  // With these facts; an inode of 0 is given one. Makes the directories above.
  void put(const std::string& path, FileFacts facts);
  void change(const std::string& path, FileFacts facts);
  void rename(const std::string& from, const std::string& to);
  void remove(const std::string& path);  // with all below it

  // "" is the root. Null when there is no such object, or no such directory.
  [[nodiscard]] const FileFacts* find(const std::string& path) const;
  [[nodiscard]] const Children* children(const std::string& directory) const;
  [[nodiscard]] const std::map<std::string, Children>& directories() const { return state_->directories; }

 private:
  struct State {
    FileFacts root;
    std::map<std::string, Children> directories;  // by path
    std::uint64_t writes = 0;
    std::uint64_t nextInode = 257;
  };
  State& edit();
  // Facts of something new, or of what is written now.
  [[nodiscard]] FileFacts fresh(FileType type);
  FileFacts& at(const std::string& path);

  std::shared_ptr<const State> state_;
};

}  // namespace quillmark::sim
