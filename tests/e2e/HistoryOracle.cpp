// Compares a copy of the history database with what the snapshots hold, read directory by directory, and tells the moves
// between neighbours.
//
//   quillmark-history-oracle DIRECTORY VOLUME LEFT_OUT XID=PATH...
//
// DIRECTORY holds the copy; LEFT_OUT is the name of directories that the index leaves out. On standard output one JSON
// object; the status is 1, and standard output tells why, when a tree isn't what its snapshot holds or the history breaks
// a rule of its own.
#include <boost/json.hpp>

#include <iostream>
#include <map>

#include "base/HelperLog.h"
#include "history/SnapshotHistoryStore.h"
#include "history/SnapshotScanner.h"
#include "history/index/Comparison.h"
#include "platform/linux/Clock.h"
#include "platform/linux/DirectoryReader.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/Posix.h"
#include "tests/history/ChainInvariants.h"

namespace quillmark {
namespace {

using SnapshotIndex::ShardedEntries;
namespace json = boost::json;

class NoLog final : public HelperLog {
  void emit(LogLevel, std::string_view message, CodeLocation) override { std::cerr << message << "\n"; }
};

// The same trees, that can't be read as wholes.
class ByDirectories final : public DirectoryReader {
 public:
  explicit ByDirectories(DirectoryReader& reader) : reader_(reader) {}
  SysResult<std::unique_ptr<OpenTree>> openTree(const std::string& root) override {
    auto tree = reader_.openTree(root);
    if (!tree) return tree;
    return std::unique_ptr<OpenTree>(std::make_unique<Tree>(std::move(*tree)));
  }
  unsigned processorCount() override { return reader_.processorCount(); }
  std::unique_ptr<LowPriority> lowerPriority() override { return reader_.lowerPriority(); }

 private:
  class Tree final : public OpenTree {
   public:
    explicit Tree(std::unique_ptr<OpenTree> tree) : tree_(std::move(tree)) {}
    const FileFacts& root() const override { return tree_->root(); }
    const std::string& ownPlace() const override { return tree_->ownPlace(); }
    SysResult<std::unique_ptr<FileLayout>> rootLayout() override { return tree_->rootLayout(); }
    SysResult<std::unique_ptr<WholeTree>> openWhole() override { return Errno{ENOTSUP}; }
    SysResult<std::unique_ptr<OpenDirectory>> open(const std::string& path) override { return tree_->open(path); }
    SysResult<std::unique_ptr<OpenDirectory>> opendir(const std::string& path) override { return tree_->opendir(path); }
    SysResult<bool> isDataless(const std::string& path) override { return tree_->isDataless(path); }

   private:
    const std::unique_ptr<OpenTree> tree_;
  };
  DirectoryReader& reader_;
};

std::string text(const SnapshotIndex::EntryView& entry) {
  return std::string(entry.path) + " type " + std::to_string(static_cast<int>(entry.type)) + " inode " +
         std::to_string(entry.inode) + " parent " + std::to_string(entry.parentInode) + " size " +
         std::to_string(entry.size) + " mtime " + std::to_string(entry.mtimeNS) + " meta " +
         std::to_string(entry.metaBits) + " generation " + std::to_string(entry.generation);
}

// What differs, as far as anybody would read it.
std::string difference(const ShardedEntries& told, const ShardedEntries& held) {
  std::string differing;
  int count = 0;
  const auto say = [&](const std::string& line) {
    if (++count <= 8) differing += "  " + line + "\n";
  };
  told.forEach([&](const SnapshotIndex::EntryView& entry) {
    const auto other = held.lookup(entry.path);
    if (!other) return say("only told: " + text(entry));
    if (*other != entry) say("told " + text(entry) + "\n  held " + text(*other));
  });
  held.forEach([&](const SnapshotIndex::EntryView& entry) {
    if (!told.lookup(entry.path)) say("only held: " + text(entry));
  });
  return differing;
}

int run(std::span<char*> arguments) {
  os::LinuxClock clock;
  os::LinuxDispatch dispatch(clock);
  os::LinuxPosix posix;
  os::LinuxDirectoryReader reader;
  ByDirectories directories(reader);
  NoLog log;
  HostPaths paths;
  paths.stateDirectory = arguments[0];
  const VolumeUuid volume(arguments[1]);
  SnapshotHistoryStore store(dispatch, posix, log, paths);
  const auto complain = [](const std::string& report) { std::cerr << report << "\n"; };
  SnapshotScanner scanner(dispatch, directories, complain, complain);

  std::string wrong = brokenInvariant(store, dispatch);
  json::object paths_, told;
  json::array ready, moves;
  for (const StoredSnapshot& snapshot : store.readySnapshots(volume)) ready.push_back(snapshot.xid.value);

  std::optional<std::pair<Xid, ShardedEntries>> previous;
  for (const std::string_view argument : arguments.subspan(3)) {
    const std::size_t equals = argument.find('=');
    const Xid xid{std::stoull(std::string(argument.substr(0, equals)))};
    ShardedEntries kept = store.reconstruct(volume, xid);
    ScanRequest request;
    request.root = argument.substr(equals + 1);
    request.rules = ExclusionRules::compile({}, {arguments[2]}, {});
    const ShardedEntries held = scanner.scan(request);
    if (const std::string differing = difference(kept, held); !differing.empty()) {
      wrong += "xid " + std::to_string(xid.value) + ":\n" + differing;
    }
    json::array all;
    kept.forEachByPath([&](const SnapshotIndex::EntryView& entry) { all.push_back(json::string(entry.path)); });
    paths_.emplace(std::to_string(xid.value), std::move(all));
    if (previous) {
      const auto changes = SnapshotIndex::diff(previous->second, kept, SnapshotIndex::ComparisonMode::snapshotLineage);
      json::array pairs;
      for (const auto& [a, b] : changes.moved) pairs.push_back({a.path, b.path});
      moves.push_back({previous->first.value, xid.value, std::move(pairs)});
    }
    previous.emplace(xid, std::move(kept));
  }
  if (!wrong.empty()) {
    std::cout << wrong << "\n";
    return 1;
  }
  told["ready"] = std::move(ready);
  told["paths"] = std::move(paths_);
  told["moves"] = std::move(moves);
  std::cout << told << "\n";
  return 0;
}

}  // namespace
}  // namespace quillmark

int main(int count, char** arguments) {
  if (count < 5) {
    std::cerr << "usage: quillmark-history-oracle DIRECTORY VOLUME LEFT_OUT XID=PATH...\n";
    return 2;
  }
  try {
    return quillmark::run(std::span(arguments + 1, arguments + count));
  } catch (const std::exception& failure) {
    std::cout << failure.what() << "\n";
    return 1;
  }
}
