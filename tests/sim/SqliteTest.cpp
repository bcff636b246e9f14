// SQLite inside the simulator: its waiting is the simulation's.
#include <gmock/gmock.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>

#include "platform/sim/Simulation.h"
#include "platform/sync.h"

namespace quillmark::sim {
namespace {

using namespace std::chrono_literals;

class Database final {
 public:
  explicit Database(const std::filesystem::path& path) {
    EXPECT_EQ(::sqlite3_open(path.c_str(), &connection_), SQLITE_OK);
    ::sqlite3_busy_timeout(connection_, 5000);
  }
  ~Database() { EXPECT_EQ(::sqlite3_close(connection_), SQLITE_OK); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  int execute(const char* sql) { return ::sqlite3_exec(connection_, sql, nullptr, nullptr, nullptr); }
  std::string value(const char* sql) {
    std::string result;
    const auto keep = [](void* into, int, char** columns, char**) {
      *static_cast<std::string*>(into) = columns[0] ? columns[0] : "";
      return 0;
    };
    ::sqlite3_exec(connection_, sql, keep, &result, nullptr);
    return result;
  }

 private:
  sqlite3* connection_ = nullptr;
};

class SqliteInSimulation : public testing::Test {
 protected:
  SqliteInSimulation() {
    std::string pattern = testing::TempDir() + "quillmark-sqlite-XXXXXX";
    directory_ = ::mkdtemp(pattern.data());
  }
  ~SqliteInSimulation() override { std::filesystem::remove_all(directory_); }
  std::filesystem::path directory_;
};

// Goal:   a fiber that finds the database busy waits in virtual time and then gets through.
// Method: one holds a write transaction for two virtual seconds, another wants one meanwhile.
TEST_F(SqliteInSimulation, ABusyDatabaseIsWaitedForInVirtualTime) {
  Simulation simulation;
  Life& life = simulation.startLife("life");
  double waited = 0;
  std::string rows;
  simulation.run(life, [&] {
    Database(directory_ / "db").execute("PRAGMA journal_mode=WAL; CREATE TABLE t(x)");
    Semaphore holds(life.dispatch());
    life.spawn("holder", [&] {
      Database database(directory_ / "db");
      EXPECT_EQ(database.execute("BEGIN IMMEDIATE; INSERT INTO t VALUES (1)"), SQLITE_OK);
      holds.signal();
      life.delay(2s);
      EXPECT_EQ(database.execute("COMMIT"), SQLITE_OK);
    });
    holds.wait();
    Database database(directory_ / "db");
    const MonotonicTime start = life.clock().monotonic();
    EXPECT_EQ(database.execute("BEGIN IMMEDIATE; INSERT INTO t VALUES (2); COMMIT"), SQLITE_OK);
    waited = std::chrono::duration<double>(life.clock().monotonic() - start).count();
    rows = database.value("SELECT count(*) FROM t");
  });
  EXPECT_GE(waited, 2);
  EXPECT_LT(waited, 5);
  EXPECT_EQ(rows, "2");
}

// Goal:   fibers that share one connection wait for each other's statements; a seed repeats, random bits included.
TEST_F(SqliteInSimulation, FibersShareAConnectionAndASeedRepeats) {
  const auto runOnce = [&](int index) {
    Simulation simulation({.seed = 3, .switchPercent = 50});
    Life& life = simulation.startLife("life");
    std::string result;
    simulation.run(life, [&] {
      Database database(directory_ / std::to_string(index));
      database.execute("PRAGMA synchronous=OFF; CREATE TABLE t(who, bits, at)");
      Group group(life.dispatch());
      for (int who = 0; who < 4; ++who) {
        group.enter();
        life.spawn("writer", [&, who] {
          for (int n = 0; n < 10; ++n) {
            const std::string sql =
                "INSERT INTO t VALUES (" + std::to_string(who) + ", random(), strftime('%s', 'now'))";
            EXPECT_EQ(database.execute(sql.c_str()), SQLITE_OK);
            life.delay(250ms);
          }
          group.leave();
        });
      }
      group.wait();
      EXPECT_EQ(database.value("SELECT count(*) FROM t"), "40");
      EXPECT_EQ(database.value("SELECT max(at) - min(at) FROM t"), "2");
      result = database.value("SELECT group_concat(who || ':' || bits || '@' || at) FROM t");
    });
    return std::pair(result, simulation.lastDraw());
  };
  EXPECT_EQ(runOnce(1), runOnce(2));
}

TEST_F(SqliteInSimulation, OutsideAFiberItWorksAsEver) {
  { Simulation simulation; }
  Database database(directory_ / "db");
  EXPECT_EQ(database.execute("CREATE TABLE t(x); INSERT INTO t VALUES (1)"), SQLITE_OK);
  EXPECT_GT(std::stoll(database.value("SELECT strftime('%s', 'now')")), 0);
  Simulation simulation({.start = Date::from1970(1'000'000'000)});
  EXPECT_EQ(database.value("SELECT strftime('%s', 'now')"), "1000000000");
  simulation.run([&] { EXPECT_EQ(database.value("SELECT sum(x) FROM t"), "1"); });
}

}  // namespace
}  // namespace quillmark::sim
