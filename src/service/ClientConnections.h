// ClientConnections: every accepted connection, weakly held, and pushes to all of them.
// Threads: thread-safe; pushes leave outside the lock and wait for nobody.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "platform/sync.h"
#include "wire/CommandTable.h"

namespace quillmark {

class TransportConnection;

class ClientConnections final {
 public:
  explicit ClientConnections(Threads& threads) : threads_(threads), lock_(threads) {}

  void add(const std::shared_ptr<TransportConnection>& connection);
  // Sends the push to every connection that still exists.
  void push(std::string_view selector, const ArgumentValues& arguments);
  // Waits until all that was sent has left, at most for the time.
  void flush(std::chrono::nanoseconds most);

 private:
  [[nodiscard]] std::vector<std::shared_ptr<TransportConnection>> living();

  Threads& threads_;
  Mutex lock_;
  std::vector<std::weak_ptr<TransportConnection>> connections_ GUARDED_BY(lock_);
};

}  // namespace quillmark
