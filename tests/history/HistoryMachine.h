// HistoryLife: a history store in one life, with what its tests need around it. It stands on a plain temporary directory,
// on a simulated disk, or inside a simulated life:
//
//   PlainHistoryMachine machine;                                        // real threads, real files
//   HistoryLife life(machine.dispatch, machine.posix, machine.paths);
//
//   SimPlatform platform(simulation.startLife("helper"), volumes);      // to be used inside simulation.run
//   HistoryLife life(platform.platform().dispatch, platform.files(), platform.paths());
//
//   life.index(volume, 1, {{"/", folder(2)}, {"/a", file(3, 10)}});
//   EXPECT_EQ(life.tree(volume, 1), ...);
#pragma once

#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/HelperLog.h"
#include "history/SnapshotHistoryStore.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/Posix.h"
#include "platform/sim/SimPlatform.h"
#include "platform/sim/SqliteInSimulation.h"

namespace quillmark {

using HistoryTreeMap = std::map<std::string, SnapshotIndex::Facts>;

inline const VolumeUuid historyVolume("00112233-4455-6677-8899-aabbccddeeff");
inline const VolumeUuid otherHistoryVolume("ffeeddcc-bbaa-4988-b766-554433221100");

[[nodiscard]] inline SnapshotIndex::Facts file(std::uint64_t inode, std::int64_t size) {
  return {.type = SnapshotIndex::EntryType::file,
          .inode = inode,
          .parentInode = 256,
          .size = size,
          .mtimeNS = size * 7,
          .metaBits = -5,
          .generation = size + 1};
}
[[nodiscard]] inline SnapshotIndex::Facts folder(std::uint64_t inode) {
  return {.type = SnapshotIndex::EntryType::directory, .inode = inode, .mtimeNS = 1};
}

[[nodiscard]] inline SnapshotIndex::ShardedEntries entriesOf(Dispatch& dispatch, const HistoryTreeMap& tree) {
  SnapshotIndex::EntryBuckets buckets;
  for (const auto& [path, facts] : tree) SnapshotIndex::append(buckets, {facts, path});
  return {dispatch, std::move(buckets)};
}
[[nodiscard]] inline HistoryTreeMap treeOf(const SnapshotIndex::ShardedEntries& entries) {
  HistoryTreeMap tree;
  entries.forEach([&](const SnapshotIndex::EntryView& entry) { tree.emplace(entry.path, entry); });
  return tree;
}

class HistoryLog final : public HelperLog {
 public:
  explicit HistoryLog(Threads& threads) : lines_(threads) {}
  [[nodiscard]] std::vector<std::string> lines() {
    return lines_.with([](const auto& lines) { return lines; });
  }

 private:
  void emit(LogLevel, std::string_view message, CodeLocation) override {
    lines_.with([&](auto& lines) { lines.emplace_back(message); });
  }
  Guarded<std::vector<std::string>> lines_;
};

struct PlainHistoryMachine {
  PlainHistoryMachine() {
    sim::runSqliteInSimulations();  // a process that simulates anywhere has to begin with it
    std::string pattern = std::filesystem::temp_directory_path() / "quillmark-history-XXXXXX";
    root = ::mkdtemp(pattern.data());
    paths.stateDirectory = root + "/state";
  }
  ~PlainHistoryMachine() { std::filesystem::remove_all(root); }
  PlainHistoryMachine(const PlainHistoryMachine&) = delete;
  PlainHistoryMachine& operator=(const PlainHistoryMachine&) = delete;

  std::string root;
  os::LinuxClock clock;
  os::LinuxDispatch dispatch{clock};
  os::LinuxPosix posix;
  HostPaths paths;
};

class HistoryLife final {
 public:
  HistoryLife(Dispatch& dispatch, Posix& posix, HostPaths paths)
      : dispatch_(dispatch), posix_(posix), paths_(std::move(paths)), log_(dispatch) {
    reopen();
  }
  void reopen() {
    store_.reset();
    store_ = std::make_unique<SnapshotHistoryStore>(dispatch_, posix_, log_, paths_);
  }
  void close() { store_.reset(); }
  [[nodiscard]] SnapshotHistoryStore& store() { return *store_; }
  [[nodiscard]] SnapshotHistoryStore* operator->() { return store_.get(); }
  [[nodiscard]] Dispatch& dispatch() { return dispatch_; }
  [[nodiscard]] std::vector<std::string> logLines() { return log_.lines(); }
  [[nodiscard]] std::string databasePath() const { return paths_.state("history.sqlite3"); }

  void recordPending(const VolumeUuid& volume, std::uint64_t xid) {
    store_->recordPending(volume, Xid{xid}, "snapshot " + std::to_string(xid), Date::from1970(1e9 + 0.25));
  }
  // Commits the tree of a registered snapshot, as the first one or as a step from the head.
  void commit(const VolumeUuid& volume, std::uint64_t xid, const HistoryTreeMap& tree) {
    const SnapshotIndex::ShardedEntries entries = entriesOf(dispatch_, tree);
    const StoredSnapshot snapshot{.xid = Xid{xid}};
    const auto state = store_->volumeState(volume);
    if (!state || !state->head) return store_->commitBaseline(volume, snapshot, entries);
    store_->commitDelta(volume, *state->head, snapshot, store_->computeDelta(volume, entries));
  }
  void index(const VolumeUuid& volume, std::uint64_t xid, const HistoryTreeMap& tree) {
    recordPending(volume, xid);
    commit(volume, xid, tree);
  }
  [[nodiscard]] HistoryTreeMap tree(const VolumeUuid& volume, std::uint64_t xid) {
    return treeOf(store_->reconstruct(volume, Xid{xid}));
  }
  [[nodiscard]] std::map<std::uint64_t, HistoryTreeMap> readyTrees(const VolumeUuid& volume) {
    std::map<std::uint64_t, HistoryTreeMap> trees;
    for (const StoredSnapshot& snapshot : store_->readySnapshots(volume)) {
      trees[snapshot.xid.value] = tree(volume, snapshot.xid.value);
    }
    return trees;
  }

 private:
  Dispatch& dispatch_;
  Posix& posix_;
  const HostPaths paths_;
  HistoryLog log_;
  std::unique_ptr<SnapshotHistoryStore> store_;
};

}  // namespace quillmark
