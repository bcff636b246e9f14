// Durability: what of a tree of files would still be there after the power went.
// Contents are safe as of the file's last fsync; names (a file or directory made, renamed or removed) as of the last
// fsync of every directory they changed in. What was not synced may or may not have reached the disk: each change of a
// name as a whole or not at all, contents whole, in part, as zeros or cut short.
// A model beside the real tree: it is told of every call and never looks itself.
// Paths are relative to the root without a leading slash; "" is the root.
// Threads: thread-compatible.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Date.h"
#include "base/FunctionRef.h"

namespace quillmark::sim {

// A file or directory by identity, which it keeps through renames and after its last name.
struct SimNode {
  using Ref = std::shared_ptr<SimNode>;

  struct State {
    std::string content;
    std::uint32_t mode = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
  };

  bool directory = false;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  Date modified;
  Date changed;
  std::map<std::string, Ref> names;         // a directory's, as every program sees them
  std::map<std::string, Ref> durableNames;  // as the disk holds them for certain

  State durable;                // as of the last fsync
  bool everSynced = false;      // else the disk may hold nothing of it
  std::size_t changedFrom = 0;  // contents below this offset are as they were at the last fsync
  // Of a file that is written in the middle: what was written since, instead of the offset.
  struct Write {
    std::size_t at = 0;
    std::string bytes;
    bool truncates = false;
  };
  bool byWrites = false;
  std::vector<Write> unsynced;
  std::optional<State> buried;  // what a file held when its last name went
};

class SimDurability final {
 public:
  // What stands in the file at a path now.
  using ReadState = FunctionRef<SimNode::State(const std::string& path)>;

  SimDurability();
  SimDurability(const SimDurability& other);  // deep
  SimDurability& operator=(const SimDurability&) = delete;

  // Null when nothing is there.
  [[nodiscard]] SimNode::Ref find(const std::string& path) const;
  // Files and directories, parents before children.
  void walk(FunctionRef<void(const std::string& path, const SimNode::Ref& node)> visit) const;

  // Each needs the parents to be known.
  SimNode::Ref made(const std::string& path, bool directory, Date now);
  // `last`: what the file held; of no meaning for a directory.
  void removed(const std::string& path, SimNode::State last);
  // `replaced`: what a file at the target held.
  void renamed(const std::string& from, const std::string& to, SimNode::State replaced);
  static void contentsChanged(SimNode& node, std::size_t from);
  // `now` holds the contents from node.changedFrom on.
  static void synced(SimNode& node, SimNode::State now);
  void namesSynced(const SimNode::Ref& directory);
  // All of it counts as synced.
  void everythingSynced(ReadState read);

  struct Survivor {
    std::string path;
    SimNode::Ref node;
    SimNode::State state;
  };
  // One of the trees that the disk may hold, parents before children; the same for the same seed.
  [[nodiscard]] std::vector<Survivor> afterPowerCut(std::uint64_t seed, ReadState read) const;

 private:
  struct Entry {
    SimNode::Ref directory;
    std::string name;
    SimNode::Ref node;  // null: the name goes
    bool synced = false;
  };
  // One change of names, in the order of the calls. Kept while it, or one before it, is not safe.
  struct Change {
    std::vector<Entry> entries;
    [[nodiscard]] bool safe() const;
  };

  void change(Change change);
  void settle();

  SimNode::Ref root_;
  std::deque<Change> changes_;
};

}  // namespace quillmark::sim
