// The history store case by case: what stands in its tables after each step, and what old files become.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>

#include "ChainInvariants.h"
#include "HistoryMachine.h"
#include "history/HistoryConnection.h"
#include "history/HistoryRows.h"
#include "platform/Files.h"

namespace quillmark {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const VolumeUuid& volume = historyVolume;
const Date created = Date::from1970(1e9 + 0.25);

class HistoryStore : public ::testing::Test {
 protected:
  // All rows that the query gives, columns joined by "|".
  std::vector<std::string> rows(const std::string& sql) {
    std::vector<std::string> found;
    life->consistentRead({}, [&](HistoryConnection& connection) {
      HistoryStatement row = connection.prepare("SELECT concat FROM (" + sql + ")");
      while (row.next()) found.emplace_back(row.text(0));
    });
    return found;
  }
  std::vector<std::string> changes() {
    return rows(
        "SELECT xid||' '||path||' '||ifnull(before_size,'-')||' '||ifnull(after_size,'-') AS concat FROM changes"
        " ORDER BY xid,path");
  }
  std::vector<std::string> marks() { return rows("SELECT ''||xid AS concat FROM history_deletions ORDER BY xid"); }
  void onFile(const std::string& sql) { HistoryConnection(life.databasePath(), access).execute(sql); }

  static constexpr auto access = HistoryConnection::Access::readWriteCreate;
  PlainHistoryMachine machine;
  HistoryLife life{machine.dispatch, machine.posix, machine.paths};
};

HistoryTreeMap with(std::int64_t size) { return {{"/", folder(256)}, {"/f", file(300, size)}}; }

template <class Work>
Error errorOf(Work work) {
  try {
    work();
  } catch (const Error& error) {
    return error;
  }
  return {"none", 0, "nothing was thrown"};
}

TEST_F(HistoryStore, asksForABootstrapUntilOneWasCompletedAndVolumesAreThere) {
  EXPECT_TRUE(life->needsExistingSnapshotBootstrap());
  life->markBootstrapComplete();
  EXPECT_FALSE(life->needsExistingSnapshotBootstrap());
  life.reopen();
  EXPECT_TRUE(life->needsExistingSnapshotBootstrap()) << "without volumes";
  life.recordPending(volume, 7);
  life.reopen();
  EXPECT_FALSE(life->needsExistingSnapshotBootstrap());
  EXPECT_FALSE(life->didResetForSchemaUpgrade());
}

TEST_F(HistoryStore, keepsItsFilesForRootAlone) {
  const auto modeOf = [&](const std::string& path) { return machine.posix.lstat(path)->mode; };
  EXPECT_EQ(modeOf(machine.paths.stateDirectory), 0700u);
  for (const char* suffix : {"", "-wal", "-shm"}) EXPECT_EQ(modeOf(life.databasePath() + suffix), 0600u) << suffix;
  ASSERT_TRUE(machine.posix.chmod(machine.paths.stateDirectory, 0755));
  life.reopen();
  EXPECT_EQ(modeOf(machine.paths.stateDirectory), 0700u);
}

TEST_F(HistoryStore, registersAVolumeAndItsSnapshotsOnce) {
  life->recordPending(volume, Xid{5}, "first", created);
  life->setVolumeState(volume, HistoryVolumeState::rebuilding);
  life->recordPending(VolumeUuid("00112233-4455-6677-8899-AABBCCDDEEFF"), Xid{5}, "renamed", created);
  EXPECT_EQ(life->volumeState(volume)->state, HistoryVolumeState::rebuilding);
  const auto pending = life->pendingSnapshots(volume);
  ASSERT_EQ(pending.size(), 1u);
  EXPECT_EQ(pending[0].name, "renamed");
  EXPECT_EQ(pending[0].createdAt, created);
  EXPECT_EQ(pending[0].state, "pending");
  EXPECT_THAT(life->volumesWithPending(), ElementsAre(volume));
  life.commit(volume, 5, with(1));
  life->recordPending(volume, Xid{5}, "again", created);
  EXPECT_TRUE(life->isReady(volume, Xid{5})) << "ready stays ready";
  EXPECT_EQ(life->readySnapshots(volume).at(0).name, "again");
  EXPECT_THAT(life->volumes(HistoryVolumeState::healthy), ElementsAre(volume));
  EXPECT_TRUE(life->hasSnapshot(volume, Xid{4}, "ready"));
  EXPECT_FALSE(life->hasSnapshot(volume, Xid{5}, "ready"));
}

TEST_F(HistoryStore, keepsXidsAndFactsOfAll64Bits) {
  constexpr std::uint64_t high = 0xFEDC'BA98'7654'3210;
  HistoryTreeMap tree = with(1);
  tree["/f"].inode = high;
  tree["/f"].metaBits = -1;
  tree["/f"].mtimeNS = INT64_MIN;
  life.index(volume, high, tree);
  EXPECT_EQ(life.readyTrees(volume), (std::map<std::uint64_t, HistoryTreeMap>{{high, tree}}));
}

TEST_F(HistoryStore, refusesADeltaWhoseHeadMovedAndLeavesAllAsItWas) {
  life.index(volume, 1, with(1));
  life.index(volume, 2, with(2));
  life.recordPending(volume, 3);
  const HistoryDelta delta{{"/f", file(300, 2), file(300, 3)}};
  const auto refusal = [&](Xid head, Xid xid) {
    return errorOf([&] { life->commitDelta(volume, head, {.xid = xid}, delta); });
  };
  const Error moved = refusal(Xid{1}, Xid{3});
  EXPECT_EQ(moved.domain(), "Quillmark.SnapshotHistory");
  EXPECT_EQ(moved.code(), 2);
  EXPECT_THAT(moved.description(),
              StartsWith("Could not commit snapshot 3: history head changed while it was scanned: "));
  EXPECT_THAT(refusal(Xid{2}, Xid{4}).description(),
              StartsWith("Could not commit snapshot 4: snapshot is no longer pending: "));
  EXPECT_EQ(life->snapshotState(volume, Xid{3}), "pending");
  EXPECT_EQ(life->volumeState(volume)->head, Xid{2});
  EXPECT_THAT(changes(), ElementsAre("2 /f 1 2"));
  EXPECT_EQ(brokenInvariant(life.store(), life.dispatch()), "");
}

TEST_F(HistoryStore, computesWhatATreeChangesByPath) {
  HistoryTreeMap before = with(1);
  before["/gone"] = file(301, 1);
  before["/é"] = file(302, 1);
  life.index(volume, 1, before);
  HistoryTreeMap after = with(1);
  after["/"].mtimeNS = 99;
  after["/new"] = file(303, 1);
  after["/é"] = before["/é"];
  after["/é"].type = SnapshotIndex::EntryType::symlink;
  EXPECT_EQ(life->computeDelta(volume, entriesOf(life.dispatch(), after)),
            (HistoryDelta{{"/", before["/"], after["/"]},
                          {"/gone", before["/gone"], {}},
                          {"/new", {}, after["/new"]},
                          {"/é", before["/é"], after["/é"]}}));
  EXPECT_THAT(life->computeDelta(otherHistoryVolume, entriesOf(life.dispatch(), {})), IsEmpty());
}

TEST_F(HistoryStore, countsWhatATreeChangesWithTheTree) {
  HistoryTreeMap before = with(1);
  for (int i = 0; i < 5'000; ++i) before["/gone " + std::to_string(i)] = file(1'000 + static_cast<std::uint64_t>(i), 1);
  life.index(volume, 1, before);
  const auto memory = std::make_shared<TreeMemory>(10 * 5'000 * sizeof(HistoryChange));
  SnapshotIndex::ShardedEntries tree = entriesOf(life.dispatch(), with(1));
  tree.hold(std::make_shared<TreeClaim>(memory));
  EXPECT_EQ(life->computeDelta(volume, tree).size(), 5'000u);
  TreeClaim others(memory);
  EXPECT_FALSE(others.take(9 * 5'000 * sizeof(HistoryChange) + 1)) << "the delta's is taken";
  ASSERT_TRUE(others.take(8 * 5'000 * sizeof(HistoryChange)));
  EXPECT_EQ(errorOf([&] { (void)life->computeDelta(volume, tree); }).description(),
            "What changed takes too much memory");
  tree = {};
  EXPECT_TRUE(others.take(2 * 5'000 * sizeof(HistoryChange)));
}

TEST_F(HistoryStore, keepsADeletedHeadUntilThePendingSnapshotSucceedsIt) {
  for (const std::uint64_t xid : {1, 2}) life.index(volume, xid, with(static_cast<std::int64_t>(xid)));
  life.recordPending(volume, 3);
  life->deleteSnapshot(volume, Xid{2});
  EXPECT_THAT(marks(), ElementsAre("2"));
  EXPECT_EQ(life->volumeState(volume)->head, Xid{2});
  life.commit(volume, 3, with(3));
  life->compactHistory(volume);
  EXPECT_THAT(marks(), IsEmpty());
  EXPECT_THAT(changes(), ElementsAre("3 /f 1 3"));
}

TEST_F(HistoryStore, removesEveryRowWithTheOnlySnapshot) {
  life.index(volume, 1, with(1));
  life->deleteSnapshot(volume, Xid{1});
  for (const char* table : {"volumes", "snapshots", "baseline_nodes", "head_nodes", "changes", "history_deletions"}) {
    EXPECT_THAT(rows("SELECT count(*)||'' AS concat FROM " + std::string(table)), ElementsAre("0")) << table;
  }
}

TEST_F(HistoryStore, dropsAVolumeThatContradictsItselfAndNoOther) {
  for (const VolumeUuid& each : {volume, otherHistoryVolume}) {
    for (const std::uint64_t xid : {1, 2, 3}) life.index(each, xid, with(static_cast<std::int64_t>(xid)));
    onFile("INSERT INTO history_deletions VALUES('" + each.text() + "',2);DELETE FROM snapshots WHERE xid=2;");
  }
  onFile("UPDATE changes SET before_size=77 WHERE xid=3 AND volume_uuid='" + volume.text() + "'");
  life->compactAllDeferred();
  EXPECT_FALSE(life->volumeState(volume));
  EXPECT_EQ(life->readyXIDs(otherHistoryVolume), (std::set<Xid>{Xid{1}, Xid{3}}));
  EXPECT_THAT(life.logLines(), ::testing::Contains("history: transition mismatch while compacting " + volume.text() +
                                                   "; dropping volume history for rebuild (History transition mismatch"
                                                   " at /f while compacting xid 2 into 3)"));
  onFile("UPDATE volumes SET head_xid=1");
  life->compactHistory(otherHistoryVolume);
  EXPECT_FALSE(life->volumeState(otherHistoryVolume));
  EXPECT_THAT(life.logLines().back(), HasSubstr("metadata invariant failed for " + otherHistoryVolume.text()));
}

TEST_F(HistoryStore, mergesWhatItCanOfTheOthersWhereAVolumeFails) {
  for (const VolumeUuid& each : {volume, otherHistoryVolume}) {
    for (const std::uint64_t xid : {1, 2, 3}) life.index(each, xid, with(static_cast<std::int64_t>(xid)));
    onFile("INSERT INTO history_deletions VALUES('" + each.text() + "',1);DELETE FROM snapshots WHERE xid=1;");
  }
  onFile("CREATE TRIGGER no BEFORE UPDATE ON volumes WHEN old.uuid='" + volume.text() +
         "' BEGIN SELECT RAISE(ABORT,'not now'); END");
  EXPECT_THAT(errorOf([&] { life->compactAllDeferred(); }).description(), HasSubstr("not now"));
  EXPECT_EQ(life->volumeState(volume)->baseline, Xid{1});
  EXPECT_EQ(life->volumeState(otherHistoryVolume)->baseline, Xid{2});
  onFile("DROP TRIGGER no");
  life->compactAllDeferred();
  EXPECT_EQ(life->volumeState(volume)->baseline, Xid{2});
}

TEST_F(HistoryStore, makesTheHeadPendingAgainUnlessANewerOneWaits) {
  for (const std::uint64_t xid : {1, 2}) life.index(volume, xid, with(static_cast<std::int64_t>(xid)));
  const StoredSnapshot head{.xid = Xid{2}, .name = "two", .createdAt = created};
  life.recordPending(volume, 3);
  EXPECT_FALSE(life->requeueHead(volume, head));
  EXPECT_EQ(life->readyXIDs(volume), (std::set<Xid>{Xid{1}, Xid{2}}));
  EXPECT_THAT(marks(), IsEmpty());
  life->dropPending(volume, Xid{3}, {});
  EXPECT_TRUE(life->requeueHead(volume, head));
  EXPECT_EQ(life->volumeState(volume)->head, Xid{1});
  EXPECT_EQ(life->snapshotState(volume, Xid{2}), "pending");
  EXPECT_EQ(brokenInvariant(life.store(), life.dispatch()), "");
  life.recordPending(volume, 3);
  life->requeueSole(volume, {.xid = Xid{1}, .name = "one", .createdAt = created});
  EXPECT_EQ(life->pendingSnapshots(volume).size(), 3u);
  EXPECT_FALSE(life->volumeState(volume)->baseline);
  EXPECT_THAT(rows("SELECT path AS concat FROM head_nodes UNION SELECT path FROM baseline_nodes"), IsEmpty());
}

TEST_F(HistoryStore, putsTheEndBackInTheQueueAndKeepsWhatWaitsEvenOfAChainThatContradictsItself) {
  for (const std::uint64_t xid : {1, 2, 3}) life.index(volume, xid, with(static_cast<std::int64_t>(xid)));
  life.recordPending(volume, 4);
  const StoredSnapshot middle{.xid = Xid{2}, .name = "two", .createdAt = created};
  const StoredSnapshot head{.xid = Xid{3}, .name = "three", .createdAt = created};
  EXPECT_TRUE(life->requeueEnd(volume, {head}));
  EXPECT_EQ(life->volumeState(volume)->head, Xid{2});
  EXPECT_EQ(life->pendingSnapshots(volume).size(), 2u);
  EXPECT_EQ(life.tree(volume, 2), with(2));
  life.commit(volume, 3, with(3));
  EXPECT_FALSE(life->requeueEnd(volume, {middle})) << "it can't join the chain again";
  EXPECT_EQ(life.tree(volume, 3), with(3));
  EXPECT_EQ(brokenInvariant(life.store(), life.dispatch()), "");

  life.commit(volume, 4, with(4));
  life.recordPending(volume, 5);
  onFile("UPDATE changes SET before_size=77 WHERE xid=4");
  EXPECT_TRUE(life->requeueEnd(volume, {head}));
  EXPECT_THAT(life.logLines().back(), HasSubstr("transition mismatch while compacting " + volume.text()));
  EXPECT_THAT(rows("SELECT xid||' '||state AS concat FROM snapshots ORDER BY xid"),
              ElementsAre("3 pending", "5 pending"));
  EXPECT_EQ(brokenInvariant(life.store(), life.dispatch()), "");
}

TEST_F(HistoryStore, aDatabaseThatProvesDamagedIsMadeAnewAtTheNextOpening) {
  life.index(volume, 1, with(1));
  life->compactHistory(volume);
  const std::size_t page =
      std::stoul(rows("SELECT ''||rootpage AS concat FROM sqlite_master WHERE name='head_nodes'").at(0));
  life.close();
  std::fstream file(life.databasePath(), std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>((page - 1) * 4096)) << std::string(4096, 'x');
  file.close();
  life.reopen();
  EXPECT_FALSE(life->didResetForSchemaUpgrade());
  EXPECT_FALSE(life->isDamaged());
  const auto tree = entriesOf(life.dispatch(), with(2));
  EXPECT_THAT(errorOf([&] { (void)life->computeDelta(volume, tree); }).description(), HasSubstr("malformed"));
  EXPECT_TRUE(life->isDamaged());
  life.reopen();
  EXPECT_TRUE(life->didResetForSchemaUpgrade());
  EXPECT_FALSE(life->isDamaged());
  life.index(volume, 1, with(1));
  EXPECT_EQ(brokenInvariant(life.store(), life.dispatch()), "");
}

TEST_F(HistoryStore, dropsOneVolumeOrAllAndKeepsTheBootstrap) {
  life->markBootstrapComplete();
  for (const VolumeUuid& each : {volume, otherHistoryVolume}) life.index(each, 1, with(1));
  life->dropVolume(volume);
  EXPECT_THAT(life->readyXIDs(volume), IsEmpty());
  EXPECT_EQ(life.tree(otherHistoryVolume, 1), with(1));
  life->dropAll();
  EXPECT_THAT(life->readyXIDs(otherHistoryVolume), IsEmpty());
  EXPECT_THAT(rows("SELECT value AS concat FROM history_meta"), ElementsAre("complete"));
}

TEST_F(HistoryStore, rebuildsTheTreeOfAnyXidAndNoneBelowTheBaseline) {
  life.index(volume, 10, with(1));
  life.index(volume, 20, with(2));
  EXPECT_EQ(life.tree(volume, 15), with(1));
  EXPECT_EQ(life.tree(volume, 99), with(2));
  EXPECT_THAT(life.tree(volume, 9), IsEmpty());
  EXPECT_THAT(life.tree(otherHistoryVolume, 10), IsEmpty());
  onFile("UPDATE changes SET after_type=9; UPDATE baseline_nodes SET type=0 WHERE path='/'");
  EXPECT_EQ(life.tree(volume, 20), (HistoryTreeMap{{"/f", file(300, 1)}})) << "rows of no type count as absent";
}

TEST_F(HistoryStore, endsACancelledReadBeforeItAndInItsMiddle) {
  bool ran = false;
  EXPECT_EQ(errorOf([&] { life->consistentRead([] { return true; }, [&](HistoryConnection&) { ran = true; }); }).code(),
            ECANCELED);
  EXPECT_FALSE(ran);
  int questions = 0;
  int rowsRead = 0;
  const Error error = errorOf([&] {
    life->consistentRead([&] { return ++questions > 3; },
                         [&](HistoryConnection& connection) {
                           HistoryStatement endless = connection.prepare(
                               "WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM n) SELECT x FROM n");
                           while (endless.next("read for ever")) ++rowsRead;
                         });
  });
  EXPECT_EQ(error.description(), "Could not read for ever: interrupted");
  EXPECT_EQ(questions, 4) << "a cancelled read asks no further";
  EXPECT_LT(rowsRead, 3000) << "each row costs instructions, of which at most 1,000 pass between two questions";
  EXPECT_EQ(life.readyTrees(volume).size(), 0u) << "the connection serves on";
}

// Goal:   what can't be read as this version's database is thrown away with its companions, and a bootstrap asked for.
// Method: each kind of file in the place of a good one with a log beside it.
TEST_F(HistoryStore, startsAnewOverFilesItCantUse) {
  const auto truncated = [](const std::string& whole) { return whole.substr(0, whole.size() / 2); };
  const auto scribbled = [](std::string whole) {
    for (std::size_t at = 100; at < 4096; ++at) whole[at] = 'x';
    return whole;
  };
  const std::vector<std::pair<const char*, std::function<std::string(std::string)>>> kinds{
      {"garbage", [](const std::string&) { return std::string(5000, 'g'); }},
      {"nothing", [](const std::string&) { return std::string(); }},
      {"a truncated file", truncated},
      {"a scribbled schema", scribbled}};
  for (const auto& [kind, damage] : kinds) {
    life.index(volume, 1, with(1));
    life->markBootstrapComplete();
    life->compactHistory(volume);  // all of it is in the file itself
    std::ifstream in(life.databasePath(), std::ios::binary);
    const std::string whole{std::istreambuf_iterator<char>(in), {}};
    for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(life.databasePath() + suffix);
    std::ofstream(life.databasePath(), std::ios::binary) << damage(whole);
    std::ofstream(life.databasePath() + "-wal", std::ios::binary) << "a stranger's log";
    life.reopen();
    EXPECT_TRUE(life->didResetForSchemaUpgrade()) << kind;
    EXPECT_TRUE(life->needsExistingSnapshotBootstrap()) << kind;
    EXPECT_FALSE(life->volumeState(volume)) << kind;
    EXPECT_EQ(brokenInvariant(life.store(), life.dispatch()), "") << kind;
  }
}

// The tables of version 7, as far as they differ in kind: another layout under the same names.
constexpr const char* version7 =
    "PRAGMA user_version=7; PRAGMA journal_mode=WAL;"
    "CREATE TABLE volumes(uuid TEXT PRIMARY KEY, head INTEGER);"
    "CREATE TABLE changes(id INTEGER PRIMARY KEY, volume_uuid TEXT, xid INTEGER, path TEXT, kind INTEGER);"
    "CREATE TABLE snapshots(volume_uuid TEXT, xid INTEGER);"
    "INSERT INTO volumes VALUES('00112233-4455-6677-8899-aabbccddeeff', 7);"
    "INSERT INTO changes(volume_uuid,xid,path,kind) VALUES('00112233-4455-6677-8899-aabbccddeeff', 7, '/old', 1);";

TEST(HistoryStoreOfAnotherVersion, isThrownAway) {
  const std::string ofOurs = "PRAGMA user_version=8;";
  for (const std::string& other :
       {std::string(version7), version7 + ofOurs,
        "CREATE TABLE volumes(uuid TEXT PRIMARY KEY, baseline_xid INTEGER, head_xid INTEGER, state TEXT, more);" +
            ofOurs,
        "CREATE VIEW snapshots AS SELECT 1;" + ofOurs}) {
    SCOPED_TRACE(other);
    PlainHistoryMachine machine;
    createDirectories(machine.posix, machine.paths.stateDirectory, 0700);
    const std::string path = machine.paths.state("history.sqlite3");
    HistoryConnection(path, HistoryConnection::Access::readWriteCreate).execute(other);
    HistoryLife life(machine.dispatch, machine.posix, machine.paths);
    EXPECT_TRUE(life->didResetForSchemaUpgrade());
    EXPECT_TRUE(life->needsExistingSnapshotBootstrap());
    EXPECT_FALSE(life->volumeState(volume));
    life.index(volume, 1, with(1));
    EXPECT_EQ(brokenInvariant(life.store(), life.dispatch()), "");
    life.reopen();
    EXPECT_FALSE(life->didResetForSchemaUpgrade());
  }
}

}  // namespace
}  // namespace quillmark
