// SimTransport: connections in memory, with seeded delays and losses, between lives of one simulation.
//
//   SimTransport transport(helper);                        // the helper resumes it with its accept
//   auto peer = transport.connect({.uid = 501}, client);   // from a fiber of the client
//   peer->send(R"({"jsonrpc":"2.0",...})");
//   const std::string reply = peer->receive(std::chrono::seconds(10));
//
// All limits hold as over a socket; a peer that doesn't read takes in what a socket would buffer and no more. When the
// server's life ends, however it does, its peers find their connections closed.
// Ownership: borrows the server's life; connections outlive it, closed.
// Threads:   confined to the simulation's thread.
#pragma once

#include <memory>

#include "platform/Transport.h"
#include "platform/sim/Simulation.h"

namespace quillmark::sim {

struct SimTransportOptions {
  TransportLimits limits = {};
  std::chrono::nanoseconds maxDelay{0};  // of each line, drawn; order is kept
  std::size_t socketBytes = 208 * 1024;
};

class SimConnection;

// The client's end. Waits in virtual time; receive and send need a fiber when they have to wait.
class SimPeer final : public ClientChannel {
 public:
  explicit SimPeer(std::shared_ptr<SimConnection> connection);
  ~SimPeer() override;

  void send(std::string_view line) override;
  std::string receive(std::chrono::nanoseconds timeout) override;

  void close();
  // From here on what the server sends stays in the socket's buffer, then with the server, until somebody receives.
  void stopReading();
  // From here on another program than the one that connected sends.
  void becomeAnother();
  [[nodiscard]] bool isOpen() const;

 private:
  const std::shared_ptr<SimConnection> connection_;
};

class SimTransport final : public TransportListener {
 public:
  explicit SimTransport(Life& server, SimTransportOptions options = {});
  ~SimTransport() override;

  void resume(Accept accept) override;

  // Throws ECONNREFUSED while nobody listens. A connection past the user's limit is closed at once.
  [[nodiscard]] std::unique_ptr<SimPeer> connect(PeerCredentials credentials, Life& client);
  [[nodiscard]] std::unique_ptr<SimPeer> connect(PeerCredentials credentials, Dispatch& client);
  [[nodiscard]] std::size_t connectionCount() const;
  // Breaks every connection, as a peer's end does.
  void dropConnections();

  struct Shared;

 private:
  const std::shared_ptr<Shared> shared_;
};

}  // namespace quillmark::sim
