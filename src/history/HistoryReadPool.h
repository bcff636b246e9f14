// HistoryReadPool: the connections on which readers work beside a commit.
// Ownership: owns the connections; a Loan gives its one back. Outlives its loans.
// Threads:   thread-safe. No lock is held while SQLite works.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "history/HistoryConnection.h"
#include "platform/sync.h"

namespace quillmark {

class HelperLog;

class HistoryReadPool final {
 public:
  HistoryReadPool(Threads& threads, HelperLog& log);

  // A connection that fails to open is left out.
  void open(const std::string& path) EXCLUDES(poolLock_);

  class Loan final {
   public:
    Loan(HistoryReadPool& pool, HistoryConnection* connection) : pool_(pool), connection_(connection) {}
    ~Loan() {
      if (connection_) pool_.giveBack(*connection_);
    }
    Loan(const Loan&) = delete;
    Loan& operator=(const Loan&) = delete;
    [[nodiscard]] explicit operator bool() const { return connection_ != nullptr; }
    [[nodiscard]] HistoryConnection& operator*() const { return *connection_; }

   private:
    HistoryReadPool& pool_;
    HistoryConnection* const connection_;
  };
  // Waits for one; none when there are none at all.
  [[nodiscard]] Loan take() EXCLUDES(poolLock_);
  [[nodiscard]] Loan tryTake() EXCLUDES(poolLock_);

 private:
  void giveBack(HistoryConnection& connection) EXCLUDES(poolLock_);
  void discard(HistoryConnection& connection) EXCLUDES(poolLock_);

  HelperLog& log_;
  Mutex poolLock_;
  ConditionVariable poolCond_;
  std::vector<HistoryConnection*> readPool_ GUARDED_BY(poolLock_);
  std::vector<std::unique_ptr<HistoryConnection>> readConnectionsAll_ GUARDED_BY(poolLock_);
  bool readPoolOpened_ GUARDED_BY(poolLock_) = false;
};

}  // namespace quillmark
