#include "history/HistoryConnection.h"

#include <sqlite3.h>

#include <utility>

#include "history/SnapshotHistoryStore.h"

namespace quillmark {
namespace {

constexpr long executionFailed = 1;
constexpr long statementFailed = 2;
constexpr int waitMilliseconds = 5000;
constexpr int instructionsBetweenQuestions = 1000;
constexpr std::size_t mostAtRest = 64;
constexpr int usualLogPages = 2000;

}  // namespace

HistoryStatement::HistoryStatement(HistoryStatement&& other) noexcept
    : connection_(other.connection_), statement_(std::exchange(other.statement_, nullptr)) {}

HistoryStatement::~HistoryStatement() {
  if (statement_) connection_->takeBack(statement_);
}

void HistoryStatement::check(int status, std::string_view operation) const {
  if (status != SQLITE_OK) throw connection_->failure(operation);
}

HistoryStatement& HistoryStatement::bind(int parameter, std::string_view text) {
  check(::sqlite3_bind_text(statement_, parameter, text.data() ? text.data() : "", static_cast<int>(text.size()),
                            SQLITE_TRANSIENT),
        "execute statement");
  return *this;
}

HistoryStatement& HistoryStatement::bind(int parameter, std::int64_t value) {
  check(::sqlite3_bind_int64(statement_, parameter, value), "execute statement");
  return *this;
}

HistoryStatement& HistoryStatement::bind(int parameter, double value) {
  check(::sqlite3_bind_double(statement_, parameter, value), "execute statement");
  return *this;
}

HistoryStatement& HistoryStatement::bindNull(int parameter) {
  check(::sqlite3_bind_null(statement_, parameter), "execute statement");
  return *this;
}

bool HistoryStatement::next(std::string_view operation) {
  const int status = ::sqlite3_step(statement_);
  if (status == SQLITE_ROW) return true;
  if (status == SQLITE_DONE) {
    ::sqlite3_reset(statement_);
    return false;
  }
  Error error = connection_->failure(operation);
  ::sqlite3_reset(statement_);
  throw Error(std::move(error));
}

void HistoryStatement::run(std::string_view operation) {
  while (next(operation)) {
  }
}

bool HistoryStatement::isNull(int column) const { return ::sqlite3_column_type(statement_, column) == SQLITE_NULL; }

std::int64_t HistoryStatement::integer(int column) const { return ::sqlite3_column_int64(statement_, column); }
double HistoryStatement::real(int column) const { return ::sqlite3_column_double(statement_, column); }

std::string_view HistoryStatement::text(int column) const {
  const unsigned char* const bytes = ::sqlite3_column_text(statement_, column);
  if (!bytes) return {};
  return {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(::sqlite3_column_bytes(statement_, column))};
}

HistoryConnection::HistoryConnection(const std::string& path, Access access) {
  const int how = access == Access::readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  if (::sqlite3_open_v2(path.c_str(), &db_, how | SQLITE_OPEN_FULLMUTEX, nullptr) == SQLITE_OK) return;
  Error error = failure("open history database");
  close();
  throw Error(std::move(error));
}

HistoryConnection::~HistoryConnection() { close(); }

void HistoryConnection::close() noexcept {
  for (const auto& [sql, statement] : atRest_) ::sqlite3_finalize(statement);
  atRest_.clear();
  ::sqlite3_close_v2(std::exchange(db_, nullptr));
}

void HistoryConnection::execute(const std::string& sql) {
  char* text = nullptr;
  if (::sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &text) == SQLITE_OK) return;
  noteFailure();
  const std::string said = text ? text : "unknown SQLite error";
  ::sqlite3_free(text);
  throw Error(std::string(snapshotHistoryDomain), executionFailed, said);
}

HistoryStatement HistoryConnection::prepare(std::string_view sql) {
  if (const auto known = atRest_.find(sql); known != atRest_.end()) {
    sqlite3_stmt* const statement = known->second;
    atRest_.erase(known);
    return {*this, statement};
  }
  sqlite3_stmt* statement = nullptr;
  if (::sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &statement,
                           nullptr) != SQLITE_OK) {
    throw failure("prepare: " + std::string(sql));
  }
  return {*this, statement};
}

void HistoryConnection::takeBack(sqlite3_stmt* statement) noexcept {
  ::sqlite3_reset(statement);
  ::sqlite3_clear_bindings(statement);
  if (atRest_.size() >= mostAtRest) {
    ::sqlite3_finalize(statement);
    return;
  }
  atRest_.emplace(::sqlite3_sql(statement), statement);
}

bool HistoryConnection::isInTransaction() const { return ::sqlite3_get_autocommit(db_) == 0; }

void HistoryConnection::tryRollback() noexcept {
  if (isInTransaction()) static_cast<void>(::sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr));
}

std::int64_t HistoryConnection::changes() const { return ::sqlite3_changes64(db_); }
int HistoryConnection::resultCode() const { return ::sqlite3_errcode(db_); }

void HistoryConnection::noteFailure() {
  const int code = resultCode();
  isDamaged_ = isDamaged_ || code == SQLITE_NOTADB || code == SQLITE_CORRUPT;
  isUnknown_ = isUnknown_ || code == SQLITE_ERROR;
}

Error HistoryConnection::failure(std::string_view operation) {
  noteFailure();
  return Error(std::string(snapshotHistoryDomain), statementFailed,
               "Could not " + std::string(operation) + ": " + ::sqlite3_errmsg(db_));
}

void HistoryConnection::tryEmptyLog() noexcept {
  hasLongLog_ = false;
  ::sqlite3_busy_timeout(db_, 0);
  static_cast<void>(::sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr));
  ::sqlite3_busy_timeout(db_, waitMilliseconds);
}

void HistoryConnection::tryDisown() noexcept {
  tryRollback();
  static_cast<void>(::sqlite3_exec(db_, "PRAGMA user_version=0", nullptr, nullptr, nullptr));
}

HistoryTransaction::HistoryTransaction(HistoryConnection& connection) : connection_(connection) {
  connection_.tryRollback();  // of an earlier one whose rollback failed
  connection_.execute("BEGIN IMMEDIATE");
}

HistoryGrowingLog::HistoryGrowingLog(HistoryConnection& connection) : connection_(connection) {
  static_cast<void>(::sqlite3_wal_autocheckpoint(connection_.db_, 0));
}

HistoryGrowingLog::~HistoryGrowingLog() {
  static_cast<void>(::sqlite3_wal_autocheckpoint(connection_.db_, usualLogPages));
  connection_.hasLongLog_ = true;
}

HistoryCancellation::HistoryCancellation(HistoryConnection& connection, const std::function<bool()>& isCancelled)
    : connection_(connection), installed_(static_cast<bool>(isCancelled)) {
  if (!installed_) return;
  const auto ask = [](void* function) { return (*static_cast<const std::function<bool()>*>(function))() ? 1 : 0; };
  ::sqlite3_progress_handler(connection_.db_, instructionsBetweenQuestions, ask,
                             const_cast<std::function<bool()>*>(&isCancelled));
}

HistoryCancellation::~HistoryCancellation() {
  if (installed_) ::sqlite3_progress_handler(connection_.db_, 0, nullptr, nullptr);
}

}  // namespace quillmark
