// SnapshotHistoryStore: the one owner of the history database. Of each volume it holds two whole trees, the oldest indexed
// state (baseline) and the newest (head), and the transitions between them, by ascending XID.
// Invariant: with a baseline and without deferred deletions: baseline and head are the smallest and largest ready XID,
//            baseline_nodes and head_nodes are exactly their trees, and the tree of a ready XID is the baseline with all
//            changes up to it.
// Ownership: owns its connections; borrows the platform's facilities.
// Threads:   thread-safe. Writers take turns on one lock that is held over SQL; readers don't wait for them.
// Errors:    throws Error of the domain Quillmark.SnapshotHistory.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/Date.h"
#include "base/Error.h"
#include "base/FunctionRef.h"
#include "base/Uuid.h"
#include "base/Xid.h"
#include "history/index/ShardedEntries.h"
#include "platform/HostPaths.h"

namespace quillmark {

class Dispatch;
class HelperLog;
class HistoryConnection;  // a connection to the database, inside a read
class Posix;

inline constexpr std::string_view snapshotHistoryDomain = "Quillmark.SnapshotHistory";
// Code 20: a text for the user.
[[nodiscard]] Error historyError(std::string text);
// Of a read that isCancelled ended.
[[nodiscard]] Error historyCancelled();

enum class HistoryVolumeState { healthy, baselinePending, repairQueued, rebuilding, unavailable };

struct HistoryVolume {
  std::optional<Xid> baseline;
  std::optional<Xid> head;
  HistoryVolumeState state = HistoryVolumeState::baselinePending;
};

struct StoredSnapshot {
  Xid xid;
  std::string name;
  Date createdAt;
  std::string state;  // "pending" or "ready"
};

// One path's transition.
struct HistoryChange {
  std::string path;
  std::optional<SnapshotIndex::Facts> before;  // absent: the path did not exist
  std::optional<SnapshotIndex::Facts> after;   // absent: the path is gone
  bool operator==(const HistoryChange&) const = default;
};
using HistoryDelta = std::vector<HistoryChange>;  // ascending by path, each path once

class SnapshotHistoryStore final {
 public:
  // Opens or makes the database. Throws when it can't be had.
  SnapshotHistoryStore(Dispatch& dispatch, Posix& posix, HelperLog& log, const HostPaths& paths);
  ~SnapshotHistoryStore();
  SnapshotHistoryStore(const SnapshotHistoryStore&) = delete;
  SnapshotHistoryStore& operator=(const SnapshotHistoryStore&) = delete;

  [[nodiscard]] bool didResetForSchemaUpgrade() const;
  [[nodiscard]] bool needsExistingSnapshotBootstrap() const;
  // The file turned out to be damaged: the next one to open it throws it away.
  [[nodiscard]] bool isDamaged() const;

  void recordPending(const VolumeUuid& volume, Xid xid, const std::string& name, Date createdAt);
  // The same for a volume whose row exists, without touching that row.
  void registerPending(const VolumeUuid& volume, Xid xid, const std::string& name, Date createdAt);
  void setVolumeState(const VolumeUuid& volume, HistoryVolumeState state);
  // Leaves all it wrote in the log.
  void commitBaseline(const VolumeUuid& volume, const StoredSnapshot& snapshot,
                      const SnapshotIndex::ShardedEntries& entries);
  // Moves what a baseline left in the log into the database, which takes a third of its time again.
  void emptyLog();
  // What the tree changes against the head: all fields count, times and inodes of directories too.
  [[nodiscard]] HistoryDelta computeDelta(const VolumeUuid& volume, const SnapshotIndex::ShardedEntries& tree);
  // All of the delta in one transaction, or nothing of it: refused when the head moved or the row is pending no longer.
  void commitDelta(const VolumeUuid& volume, Xid expectedHead, const StoredSnapshot& snapshot,
                   const HistoryDelta& delta);
  // Makes the head, or with requeueSole the only ready snapshot, pending again: its tree is forgotten, and the head steps
  // back. False, and nothing changed, while a newer snapshot is pending, whose transition would start from it.
  [[nodiscard]] bool requeueHead(const VolumeUuid& volume, const StoredSnapshot& snapshot);
  void requeueSole(const VolumeUuid& volume, const StoredSnapshot& snapshot);
  // The trees of these ready snapshots are of no use any more. Those at the end of the chain become pending again, and the
  // head steps back over them; true when there were any. The others are deleted from the history. All in one transaction:
  // whatever waits keeps its place. Not while one of the volume's snapshots is being scanned.
  [[nodiscard]] bool requeueEnd(const VolumeUuid& volume, const std::vector<StoredSnapshot>& snapshots);
  // Which state of a snapshot its tree was read in: the number of its last change (SnapshotCalls.h), 0 for none. Said
  // before the commit; gone with the snapshot.
  void noteChange(const VolumeUuid& volume, Xid xid, std::uint64_t change);
  // Of those that aren't as they were made.
  [[nodiscard]] std::map<Xid, std::uint64_t> notedChanges(const VolumeUuid& volume);
  void dropPending(const VolumeUuid& volume, Xid upToXID, const std::set<Xid>& keeping);
  void deleteSnapshot(const VolumeUuid& volume, Xid xid) { deleteSnapshots(volume, {xid}); }
  void deleteSnapshots(const VolumeUuid& volume, const std::vector<Xid>& xids);
  void compactHistory(const VolumeUuid& volume);
  // The same, where a deletion is marked that wasn't merged.
  void compactDeferred(const VolumeUuid& volume);
  // A volume's failure doesn't keep others from their turn; the first one is thrown in the end.
  void compactAllDeferred();
  void dropVolume(const VolumeUuid& volume);
  void dropAll();
  void markBootstrapComplete();

  [[nodiscard]] std::optional<HistoryVolume> volumeState(const VolumeUuid& volume);
  [[nodiscard]] std::vector<VolumeUuid> volumes(HistoryVolumeState in);
  [[nodiscard]] std::vector<StoredSnapshot> pendingSnapshots(const VolumeUuid& volume);
  [[nodiscard]] std::vector<VolumeUuid> volumesWithPending();
  [[nodiscard]] std::vector<StoredSnapshot> readySnapshots(const VolumeUuid& volume);
  [[nodiscard]] bool isReady(const VolumeUuid& volume, Xid xid);
  [[nodiscard]] std::optional<std::string> snapshotState(const VolumeUuid& volume, Xid xid);
  [[nodiscard]] bool hasSnapshot(const VolumeUuid& volume, Xid after, std::string_view state);
  // Never waits for a commit: answers what was known before it, if need be.
  [[nodiscard]] std::set<Xid> readyXIDs(const VolumeUuid& volume);

  // Runs the body inside one read transaction. isCancelled may be empty; true ends the running statement. The body reads
  // through its connection (HistoryRows.h): the store's other reads would each wait for a connection of their own.
  void consistentRead(const std::function<bool()>& isCancelled, FunctionRef<void(HistoryConnection&)> body);
  // The tree at an XID, empty without a baseline or below it; the XID need not be ready.
  [[nodiscard]] SnapshotIndex::ShardedEntries reconstruct(const VolumeUuid& volume, Xid xid,
                                                          HistoryConnection& connection);
  [[nodiscard]] SnapshotIndex::ShardedEntries reconstruct(const VolumeUuid& volume, Xid xid);
  // The changes of XIDs above the first up to the second, by XID and path.
  void forEachChange(const VolumeUuid& volume, Xid above, Xid upTo, HistoryConnection& connection,
                     FunctionRef<void(Xid, const HistoryChange&)> visitor);

 private:
  class Implementation;
  const std::unique_ptr<Implementation> self_;
};

}  // namespace quillmark
