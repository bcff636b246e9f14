#include "service/ClientConnections.h"

#include "platform/Transport.h"
#include "wire/Rpc.h"

namespace quillmark {

void ClientConnections::add(const std::shared_ptr<TransportConnection>& connection) {
  MutexLock lock(lock_);
  connections_.push_back(connection);
  std::erase_if(connections_, [](const auto& weak) { return weak.expired(); });
}

void ClientConnections::push(std::string_view selector, const ArgumentValues& arguments) {
  std::vector<std::weak_ptr<TransportConnection>> connections;
  {
    MutexLock lock(lock_);
    connections = connections_;
  }
  const std::string line = encodePush(selector, arguments);
  for (const auto& weak : connections) {
    if (const auto connection = weak.lock()) connection->send(line);
  }
}

}  // namespace quillmark
