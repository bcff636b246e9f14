// HistoryConnection: one connection to the history database, its statements and its transactions.
//
//   HistoryTransaction transaction(connection);
//   HistoryStatement row = connection.prepare("DELETE FROM changes WHERE volume_uuid=? AND xid=?");
//   row.run(volume, xid);
//   transaction.commit();
//
// Ownership: owns its statements; a HistoryStatement borrows one from it and gives it back reset.
// Threads:   thread-compatible: one user at a time. SQLite's own full mutex is on all the same.
// Errors:    throws Error of the domain Quillmark.SnapshotHistory: code 1 for plain execution, code 2 for statements.
// Units:     XIDs are stored as the bit pattern of their 64 bits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "base/Error.h"
#include "base/Uuid.h"
#include "base/Xid.h"

struct sqlite3;
struct sqlite3_stmt;

namespace quillmark {

class HistoryConnection;

class HistoryStatement final {
 public:
  HistoryStatement(HistoryStatement&& other) noexcept;
  HistoryStatement& operator=(HistoryStatement&&) = delete;
  ~HistoryStatement();

  // Parameters count from 1, and keep their values from run to run.
  HistoryStatement& bind(int parameter, std::string_view text);
  HistoryStatement& bind(int parameter, const VolumeUuid& volume) { return bind(parameter, volume.text()); }
  HistoryStatement& bind(int parameter, std::int64_t value);
  HistoryStatement& bind(int parameter, std::uint64_t value) {
    return bind(parameter, static_cast<std::int64_t>(value));
  }
  HistoryStatement& bind(int parameter, Xid xid) { return bind(parameter, xid.value); }
  HistoryStatement& bind(int parameter, double value);
  HistoryStatement& bindNull(int parameter);
  template <class... Values>
  HistoryStatement& bindAll(const Values&... values) {
    int parameter = 0;
    (bind(++parameter, values), ...);
    return *this;
  }

  // The next row; false at the end, and then the statement is as before its first row. The operation is what an error
  // says could not be done.
  [[nodiscard]] bool next(std::string_view operation = "execute statement");
  // To the end, whatever rows come.
  void run(std::string_view operation = "execute statement");
  template <class... Values>
  void runWith(const Values&... values) {
    bindAll(values...).run();
  }

  // Columns of the row, counted from 0. Text lives until the next row.
  [[nodiscard]] bool isNull(int column) const;
  [[nodiscard]] std::int64_t integer(int column) const;
  [[nodiscard]] Xid xid(int column) const { return {static_cast<std::uint64_t>(integer(column))}; }
  [[nodiscard]] double real(int column) const;
  [[nodiscard]] std::string_view text(int column) const;

 private:
  friend class HistoryConnection;
  HistoryStatement(HistoryConnection& connection, sqlite3_stmt* statement)
      : connection_(&connection), statement_(statement) {}
  void check(int status, std::string_view operation) const;

  HistoryConnection* connection_;
  sqlite3_stmt* statement_;
};

class HistoryConnection final {
 public:
  enum class Access { readWriteCreate, readOnly };
  HistoryConnection(const std::string& path, Access access);
  ~HistoryConnection();
  HistoryConnection(const HistoryConnection&) = delete;
  HistoryConnection& operator=(const HistoryConnection&) = delete;

  // Plain execution of one or more statements.
  void execute(const std::string& sql);
  // Prepared once per connection and text.
  [[nodiscard]] HistoryStatement prepare(std::string_view sql);

  [[nodiscard]] bool isInTransaction() const;
  // Does nothing outside a transaction; may leave it open.
  void tryRollback() noexcept;
  // Rows that the last statement changed.
  [[nodiscard]] std::int64_t changes() const;
  // SQLite's code of the last failure; SQLITE_INTERRUPT is 9.
  [[nodiscard]] int resultCode() const;
  // Some failure so far said that the file is no database, or a damaged one.
  [[nodiscard]] bool isDamaged() const { return isDamaged_; }
  // Some failure so far said that a statement doesn't fit the tables.
  [[nodiscard]] bool isUnknown() const { return isUnknown_; }
  // "Could not <operation>: <SQLite's text of the last failure>", code 2.
  [[nodiscard]] Error failure(std::string_view operation);
  // There was a HistoryGrowingLog since the log was emptied.
  [[nodiscard]] bool hasLongLog() const { return hasLongLog_; }
  // Moves the log into the database and empties it, as far as that goes without waiting for anybody.
  void tryEmptyLog() noexcept;
  // Takes the schema's version off the file, so that nobody takes it for a history again.
  void tryDisown() noexcept;

 private:
  friend class HistoryStatement;
  friend class HistoryCancellation;
  friend class HistoryGrowingLog;
  void takeBack(sqlite3_stmt* statement) noexcept;
  void close() noexcept;
  void noteFailure();

  sqlite3* db_ = nullptr;
  bool isDamaged_ = false;
  bool isUnknown_ = false;
  bool hasLongLog_ = false;
  std::multimap<std::string, sqlite3_stmt*, std::less<>> atRest_;
};

// BEGIN IMMEDIATE, and a rollback unless it is committed.
class HistoryTransaction final {
 public:
  explicit HistoryTransaction(HistoryConnection& connection);
  ~HistoryTransaction() { connection_.tryRollback(); }
  HistoryTransaction(const HistoryTransaction&) = delete;
  HistoryTransaction& operator=(const HistoryTransaction&) = delete;
  void commit() { connection_.execute("COMMIT"); }

 private:
  HistoryConnection& connection_;
};

// While it lives, commits leave in the log whatever they wrote: for who empties it later, when nobody waits.
class HistoryGrowingLog final {
 public:
  explicit HistoryGrowingLog(HistoryConnection& connection);
  ~HistoryGrowingLog();
  HistoryGrowingLog(const HistoryGrowingLog&) = delete;
  HistoryGrowingLog& operator=(const HistoryGrowingLog&) = delete;

 private:
  HistoryConnection& connection_;
};

// While it lives, running statements end with an error once isCancelled() is true. Asks within 1,000 instructions of
// SQLite's machine. An empty function cancels nothing. isCancelled must outlive it and must not throw.
class HistoryCancellation final {
 public:
  HistoryCancellation(HistoryConnection& connection, const std::function<bool()>& isCancelled);
  ~HistoryCancellation();
  HistoryCancellation(const HistoryCancellation&) = delete;
  HistoryCancellation& operator=(const HistoryCancellation&) = delete;

 private:
  HistoryConnection& connection_;
  bool installed_ = false;
};

}  // namespace quillmark
