// SimConnection: both ends of a simulated connection. The server's is TransportConnection; SimPeer drives the client's.
// No lock: a fiber gives its turn away only where it waits or calls a queue, and each operation is done by then.
// Threads: confined to the simulation's thread.
#pragma once

#include <deque>

#include "platform/dispatch.h"
#include "platform/sim/Draws.h"
#include "platform/sim/SimTransport.h"

namespace quillmark::sim {

class SimConnection final : public TransportConnection, public std::enable_shared_from_this<SimConnection> {
 public:
  struct Setting {
    SimTransportOptions options;
    PeerCredentials peer;
    std::uint64_t seed;
  };
  SimConnection(Dispatch& server, Dispatch& client, Setting setting);

  // The server's end.
  const PeerCredentials& peer() const override { return setting_.peer; }
  void setCodeSigningRequirement(std::string_view) override { guarded_ = true; }
  void start(Callbacks callbacks) override;
  void send(std::string line) override;
  bool hasUnsent() override { return !over_ && unsent_.bytes > 0; }
  void pauseReading() override;
  void resumeReading() override;
  void close() override;
  [[nodiscard]] Queue& queue() { return *queue_; }
  void end(CloseReason reason);
  // Called once when it is over, at once and outside every queue.
  void onEnd(UniqueFunction<void()> callback) { onEnd_ = std::move(callback); }
  // The server's life is gone: nothing of it is called any more.
  void serverGone();

  // The client's end.
  void clientSend(std::string_view line);
  [[nodiscard]] std::string clientReceive(std::chrono::nanoseconds timeout);
  void clientClose() { end(CloseReason::peerClosed); }
  void clientStopsReading() { clientReads_ = false; }
  void clientBecomesAnother() { another_ = true; }
  [[nodiscard]] bool isOpen() const { return !over_; }

 private:
  struct Line {
    std::string text;
    MonotonicTime arrival;
    bool ofAnother = false;
    [[nodiscard]] std::size_t bytes() const { return text.size() + 1; }
  };
  // Lines on their way in one direction.
  struct Lane {
    std::deque<Line> lines;
    std::size_t bytes = 0;
    void push(Line line);
    [[nodiscard]] std::string pop();
  };

  [[nodiscard]] Line stamped(std::string text, const Lane& lane);
  [[nodiscard]] bool serverReads() const { return started_ && !closing_ && pauses_ == 0 && !outboxFull_; }
  void scheduleDelivery();
  void deliver();
  void moveToClient();
  void watchForStall();
  void scheduleClosed();

  Dispatch& server_;
  Dispatch& client_;
  const Setting setting_;
  const std::shared_ptr<Queue> queue_;
  Draws draws_;

  Callbacks callbacks_;
  UniqueFunction<void()> onEnd_;
  Lane toServer_;
  Lane unsent_;    // with the server
  Lane toClient_;  // in the socket, or taken by the client already
  unsigned pauses_ = 0;
  bool started_ = false;
  bool guarded_ = false;
  bool another_ = false;  // what the client sends is another program's
  bool delivering_ = false;
  bool closing_ = false;
  bool over_ = false;
  bool serverGone_ = false;
  bool outboxFull_ = false;
  bool clientReads_ = true;
  bool stallWatched_ = false;
  MonotonicTime shrankAt_;
  CloseReason reason_ = CloseReason::failed;
  Mutex clientMutex_;  // of the client's own fibers
  ConditionVariable clientChanged_;
};

}  // namespace quillmark::sim
