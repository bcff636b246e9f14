#include "service/ClientConnections.h"

#include <algorithm>

#include "platform/Transport.h"
#include "wire/Rpc.h"

namespace quillmark {

void ClientConnections::add(const std::shared_ptr<TransportConnection>& connection) {
  MutexLock lock(lock_);
  connections_.push_back(connection);
  std::erase_if(connections_, [](const auto& weak) { return weak.expired(); });
}

std::vector<std::shared_ptr<TransportConnection>> ClientConnections::living() {
  MutexLock lock(lock_);
  std::vector<std::shared_ptr<TransportConnection>> connections;
  for (const auto& weak : connections_) {
    if (auto connection = weak.lock()) connections.push_back(std::move(connection));
  }
  return connections;
}

void ClientConnections::push(std::string_view selector, const ArgumentValues& arguments) {
  const std::string line = encodePush(selector, arguments);
  for (const auto& connection : living()) connection->send(line);
}

void ClientConnections::flush(std::chrono::nanoseconds most) {
  constexpr std::chrono::milliseconds look{2};
  const auto connections = living();
  const MonotonicTime deadline = threads_.clock().monotonic() + most;
  const auto waits = [](const auto& connection) { return connection->hasUnsent(); };
  while (std::any_of(connections.begin(), connections.end(), waits) && threads_.clock().monotonic() < deadline) {
    sleepFor(threads_, look);
  }
}

}  // namespace quillmark
