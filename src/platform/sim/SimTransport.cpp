#include "platform/sim/SimTransport.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <vector>

#include "base/Error.h"
#include "platform/sim/SimConnection.h"

namespace quillmark::sim {

struct SimTransport::Shared {
  Dispatch& server;
  Random& random;
  const SimTransportOptions options;
  std::shared_ptr<Accept> accept;
  std::vector<std::shared_ptr<SimConnection>> connections;
  bool serverGone = false;

  void forget(const SimConnection* connection) {
    std::erase_if(connections, [&](const auto& known) { return known.get() == connection; });
  }
  [[nodiscard]] unsigned connectionsOf(std::uint32_t uid) const {
    return static_cast<unsigned>(std::count_if(connections.begin(), connections.end(),
                                               [&](const auto& known) { return known->peer().uid == uid; }));
  }
  void endServer() {
    serverGone = true;
    accept = nullptr;
    for (const auto& connection : std::exchange(connections, {})) connection->serverGone();
  }
};

SimPeer::SimPeer(std::shared_ptr<SimConnection> connection) : connection_(std::move(connection)) {}
SimPeer::~SimPeer() { connection_->clientClose(); }
void SimPeer::send(std::string_view line) { connection_->clientSend(line); }
std::string SimPeer::receive(std::chrono::nanoseconds timeout) { return connection_->clientReceive(timeout); }
void SimPeer::close() { connection_->clientClose(); }
void SimPeer::stopReading() { connection_->clientStopsReading(); }
void SimPeer::becomeAnother() { connection_->clientBecomesAnother(); }
bool SimPeer::isOpen() const { return connection_->isOpen(); }

SimTransport::SimTransport(Life& server, SimTransportOptions options)
    : shared_(new Shared{server.dispatch(), server.random(), options, nullptr, {}, false}) {
  server.atEnd([shared = std::weak_ptr(shared_)] {
    if (const auto alive = shared.lock()) alive->endServer();
  });
}

SimTransport::~SimTransport() {
  shared_->accept = nullptr;
  for (const auto& connection : std::exchange(shared_->connections, {})) connection->end(CloseReason::closedByUs);
}

void SimTransport::resume(Accept accept) { shared_->accept = std::make_shared<Accept>(std::move(accept)); }

std::unique_ptr<SimPeer> SimTransport::connect(PeerCredentials credentials, Life& client) {
  return connect(std::move(credentials), client.dispatch());
}

std::unique_ptr<SimPeer> SimTransport::connect(PeerCredentials credentials, Dispatch& client) {
  if (!shared_->accept) throw posixError("connect", "helper", ECONNREFUSED);
  const bool full = shared_->connectionsOf(credentials.uid) >= shared_->options.limits.maxConnectionsPerUser;
  auto connection = std::make_shared<SimConnection>(
      shared_->server, client,
      SimConnection::Setting{
          .options = shared_->options, .peer = std::move(credentials), .seed = shared_->random.next()});
  auto peer = std::make_unique<SimPeer>(connection);
  if (full) {
    connection->end(CloseReason::closedByUs);
    return peer;
  }
  connection->onEnd([shared = std::weak_ptr(shared_), known = connection.get()] {
    if (const auto alive = shared.lock()) alive->forget(known);
  });
  shared_->connections.push_back(connection);
  connection->queue().async([accept = shared_->accept, connection] {
    if (!(*accept)(connection)) connection->end(CloseReason::closedByUs);
  });
  return peer;
}

std::size_t SimTransport::connectionCount() const { return shared_->connections.size(); }

void SimTransport::dropConnections() {
  const auto connections = shared_->connections;
  for (const auto& connection : connections) connection->end(CloseReason::peerClosed);
}

}  // namespace quillmark::sim
