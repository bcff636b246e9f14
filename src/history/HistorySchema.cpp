#include "history/HistorySchema.h"

#include <cerrno>
#include <vector>

#include "base/HelperLog.h"
#include "platform/Files.h"
#include "platform/posix.h"

namespace quillmark {
namespace {

constexpr std::int64_t schemaVersion = 8;

// Their order matters: the first two have to come before the file has any page.
constexpr const char* settings[] = {
    "PRAGMA auto_vacuum=INCREMENTAL",
    "PRAGMA user_version=8",
    "PRAGMA journal_mode=WAL",
    "PRAGMA synchronous=NORMAL",
    "PRAGMA foreign_keys=ON",
    "PRAGMA busy_timeout=5000",
    "PRAGMA temp_store=MEMORY",
    "PRAGMA cache_size=-32768",
    "PRAGMA mmap_size=268435456",
    "PRAGMA wal_autocheckpoint=2000",
    "PRAGMA journal_size_limit=8388608",
};

// Trees and transitions lie in their keys, without a row number: a row is found in one step and stored once.
constexpr const char* nodeColumns =
    "(volume_uuid TEXT NOT NULL, path TEXT NOT NULL, type INTEGER NOT NULL, inode INTEGER NOT NULL,"
    " parent_inode INTEGER NOT NULL, size INTEGER NOT NULL, mtime_ns INTEGER NOT NULL,"
    " meta_bits INTEGER NOT NULL DEFAULT 0, generation INTEGER NOT NULL DEFAULT 0, name TEXT NOT NULL DEFAULT '',"
    " PRIMARY KEY(volume_uuid,path)) WITHOUT ROWID;";
constexpr const char* baselineNameIndex =
    "CREATE INDEX IF NOT EXISTS baseline_name_idx ON baseline_nodes(volume_uuid,name);";
constexpr const char* chainTables =
    "CREATE TABLE IF NOT EXISTS volumes(uuid TEXT PRIMARY KEY, baseline_xid INTEGER, head_xid INTEGER,"
    " state TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS snapshots(volume_uuid TEXT NOT NULL, xid INTEGER NOT NULL, name TEXT NOT NULL,"
    " created_at REAL NOT NULL, state TEXT NOT NULL, PRIMARY KEY(volume_uuid,xid));"
    "CREATE TABLE IF NOT EXISTS changes(volume_uuid TEXT NOT NULL, xid INTEGER NOT NULL, path TEXT NOT NULL,"
    " before_type INTEGER, before_inode INTEGER, before_parent_inode INTEGER, before_size INTEGER,"
    " before_mtime_ns INTEGER, before_meta_bits INTEGER, before_generation INTEGER,"
    " after_type INTEGER, after_inode INTEGER, after_parent_inode INTEGER, after_size INTEGER,"
    " after_mtime_ns INTEGER, after_meta_bits INTEGER, after_generation INTEGER,"
    " name TEXT NOT NULL DEFAULT '', PRIMARY KEY(volume_uuid,xid,path)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS history_deletions(volume_uuid TEXT NOT NULL, xid INTEGER NOT NULL,"
    " PRIMARY KEY(volume_uuid,xid));"
    "CREATE TABLE IF NOT EXISTS snapshot_changes(volume_uuid TEXT NOT NULL, xid INTEGER NOT NULL,"
    " change INTEGER NOT NULL, PRIMARY KEY(volume_uuid,xid));"
    "CREATE TABLE IF NOT EXISTS history_meta(key TEXT PRIMARY KEY, value TEXT NOT NULL);";
constexpr const char* changesIndexes =
    "CREATE INDEX IF NOT EXISTS changes_path_idx ON changes(volume_uuid,path,xid);"
    "CREATE INDEX IF NOT EXISTS changes_name_idx ON changes(volume_uuid,name);"
    "CREATE INDEX IF NOT EXISTS changes_before_inode_idx ON changes(volume_uuid,before_inode,xid);"
    "CREATE INDEX IF NOT EXISTS changes_after_inode_idx ON changes(volume_uuid,after_inode,xid);";

std::string schemaScript() {
  const std::string table = "CREATE TABLE IF NOT EXISTS ";
  return chainTables + table + "baseline_nodes" + nodeColumns + table + "head_nodes" + nodeColumns + baselineNameIndex +
         changesIndexes;
}

constexpr const char* companions[] = {"-wal", "-shm"};

void removeFile(Posix& posix, const std::string& path) {
  const SysStatus removed = posix.unlink(path);
  if (!removed && removed.error() != ENOENT) throw posixError("unlink", path, removed.error());
}

// The log goes last: without it the database could be taken for a whole one.
void removeDatabase(Posix& posix, const std::string& path) {
  removeFile(posix, path);
  syncNamesIn(posix, parentDirectory(path));
  for (const char* suffix : companions) removeFile(posix, path + suffix);
}

bool fileExists(Posix& posix, const std::string& path) {
  const auto status = posix.lstat(path);
  if (!status && status.error() != ENOENT) throw posixError("lstat", path, status.error());
  return status.ok();
}

[[nodiscard]] std::unique_ptr<HistoryConnection> connect(const std::string& path) {
  return std::make_unique<HistoryConnection>(path, HistoryConnection::Access::readWriteCreate);
}

// False for a file that is no database at all.
bool isOfThisVersion(HistoryConnection& connection) {
  try {
    HistoryStatement version = connection.prepare("PRAGMA user_version");
    return version.next("read schema version") && version.integer(0) == schemaVersion;
  } catch (const Error&) {
    if (!connection.isDamaged()) throw;
    return false;
  }
}

void prepareDatabase(HistoryConnection& connection) {
  for (const char* setting : settings) connection.execute(setting);
  connection.execute(schemaScript());
}

bool lacksBootstrap(HistoryConnection& connection) {
  HistoryStatement question = connection.prepare(
      "SELECT EXISTS(SELECT 1 FROM volumes) AND EXISTS(SELECT 1 FROM history_meta WHERE"
      " key='existing_snapshot_bootstrap' AND value='complete')");
  return !question.next("read bootstrap state") || question.integer(0) == 0;
}

std::vector<std::string> columnsOf(HistoryConnection& connection) {
  HistoryStatement rows = connection.prepare(
      "SELECT t.name||' '||c.cid||' '||c.name||' '||c.pk FROM sqlite_master AS t, pragma_table_info(t.name) AS c"
      " WHERE t.type='table' AND t.name NOT LIKE 'sqlite_%' ORDER BY 1");
  std::vector<std::string> columns;
  while (rows.next("read schema")) columns.emplace_back(rows.text(0));
  return columns;
}

// A stranger's tables may bear the names of ours.
bool hasOurTables(HistoryConnection& connection) {
  HistoryConnection model(":memory:", HistoryConnection::Access::readWriteCreate);
  model.execute(schemaScript());
  return columnsOf(connection) == columnsOf(model);
}

// The schema and the small tables are read whole, so that damage shows here. A stranger's database may have no place for
// our indexes.
bool usable(HistoryConnection& connection) {
  try {
    prepareDatabase(connection);
    for (const char* table : {"volumes", "snapshots", "history_deletions", "snapshot_changes", "history_meta"}) {
      connection.execute("SELECT * FROM " + std::string(table));
    }
    return hasOurTables(connection);
  } catch (const Error&) {
    if (!connection.isDamaged() && !connection.isUnknown()) throw;
    return false;
  }
}

}  // namespace

OpenedHistory openHistory(Posix& posix, HelperLog& log, const std::string& path) {
  const std::string directory = parentDirectory(path);
  createDirectoriesDurably(posix, directory, 0700);
  setAttributes(posix, directory, 0700);

  const bool existed = fileExists(posix, path);
  OpenedHistory opened{.connection = connect(path)};
  if (existed && (!isOfThisVersion(*opened.connection) || !usable(*opened.connection))) {
    log.info("history: the database is of another version or damaged; made anew from the snapshots");
    opened.didReset = true;
    opened.connection.reset();
    removeDatabase(posix, path);
    opened.connection = connect(path);
  }
  if (!existed || opened.didReset) prepareDatabase(*opened.connection);
  opened.needsBootstrap = !existed || opened.didReset || lacksBootstrap(*opened.connection);
  return opened;
}

void secureHistoryFiles(Posix& posix, HelperLog& log, const std::string& path) {
  for (const char* suffix : {"", companions[0], companions[1]}) {
    const std::string file = path + suffix;
    const auto status = posix.lstat(file);
    if (!status || status->type != FileType::regular) continue;
    const SysStatus owned = posix.chown(file, 0, 0);
    const SysStatus closed = posix.chmod(file, 0600);
    if (!owned || !closed) log.warn("history: attributes of " + file + " could not be set");
  }
}

void dropBaselineNameIndex(HistoryConnection& connection) { connection.execute("DROP INDEX baseline_name_idx"); }
void createBaselineNameIndex(HistoryConnection& connection) { connection.execute(baselineNameIndex); }

}  // namespace quillmark
