#include "history/HistoryReadPool.h"

#include <algorithm>
#include <utility>

#include "base/HelperLog.h"

namespace quillmark {
namespace {

constexpr int connectionCount = 4;

std::unique_ptr<HistoryConnection> tryConnect(const std::string& path) {
  try {
    auto connection = std::make_unique<HistoryConnection>(path, HistoryConnection::Access::readOnly);
    connection->execute("PRAGMA busy_timeout=2000");
    return connection;
  } catch (const Error&) {
    return nullptr;
  }
}

}  // namespace

HistoryReadPool::HistoryReadPool(Threads& threads, HelperLog& log)
    : log_(log), poolLock_(threads), poolCond_(threads) {}

void HistoryReadPool::open(const std::string& path) {
  std::vector<std::unique_ptr<HistoryConnection>> opened;
  for (int i = 0; i < connectionCount; ++i) {
    if (auto connection = tryConnect(path)) opened.push_back(std::move(connection));
  }
  if (opened.empty()) {
    log_.warn("history: read pool unavailable; reads will use the main connection");
    return;
  }
  MutexLock lock(poolLock_);
  for (const auto& connection : opened) readPool_.push_back(connection.get());
  readConnectionsAll_ = std::move(opened);
  readPoolOpened_ = true;
}

HistoryReadPool::Loan HistoryReadPool::take() {
  MutexLock lock(poolLock_);
  while (readPool_.empty() && readPoolOpened_) poolCond_.wait(poolLock_);
  if (!readPoolOpened_) return {*this, nullptr};
  HistoryConnection* const connection = readPool_.back();
  readPool_.pop_back();
  return {*this, connection};
}

HistoryReadPool::Loan HistoryReadPool::tryTake() {
  MutexLock lock(poolLock_);
  if (readPool_.empty()) return {*this, nullptr};
  HistoryConnection* const connection = readPool_.back();
  readPool_.pop_back();
  return {*this, connection};
}

void HistoryReadPool::giveBack(HistoryConnection& connection) {
  connection.tryRollback();
  if (connection.isInTransaction()) return discard(connection);
  MutexLock lock(poolLock_);
  readPool_.push_back(&connection);
  poolCond_.notifyOne();
}

void HistoryReadPool::discard(HistoryConnection& connection) {
  std::unique_ptr<HistoryConnection> discarded;
  {
    MutexLock lock(poolLock_);
    const auto found = std::find_if(readConnectionsAll_.begin(), readConnectionsAll_.end(),
                                    [&](const auto& one) { return one.get() == &connection; });
    if (found != readConnectionsAll_.end()) {
      discarded = std::move(*found);
      readConnectionsAll_.erase(found);
    }
    readPoolOpened_ = !readConnectionsAll_.empty();
    poolCond_.notifyAll();
  }
  log_.warn("history: discarded a read connection that could not leave its transaction");
}

}  // namespace quillmark
