// HelperService: what one client talks to. Owns its context (who calls, four work queues), nothing long-lived.
// Ownership: shared by its connection's callbacks and by nobody else; queued work holds it weakly, so that a client that
//            went away leaves no command behind.
// Threads:   receive() is called for one line at a time; the rest from any queue.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Uuid.h"
#include "journal/HelperEvent.h"
#include "platform/dispatch.h"
#include "snapshots/APFSManager.h"
#include "snapshots/PeerAuthorization.h"
#include "wire/Rpc.h"

namespace quillmark {

class HelperEnvironment;
class TransportConnection;

struct ClientIdentity {
  HelperEvent::Client client = HelperEvent::Client::unknown;
  std::optional<std::string> user;  // from the password database
  std::optional<std::uint32_t> peerUID;
  std::optional<std::vector<std::uint32_t>> groups = {};  // supplementary, as of its connect
};

class HelperService final : public std::enable_shared_from_this<HelperService> {
 public:
  HelperService(HelperEnvironment& environment, std::weak_ptr<TransportConnection> connection, ClientIdentity identity);
  ~HelperService();

  // Tells this client alone.
  void push(std::string_view selector, const ArgumentValues& arguments) { send(encodePush(selector, arguments)); }

  // One line of the client, on the delivery queue of its connection.
  void receive(const std::string& line);

  [[nodiscard]] HelperEnvironment& environment() { return environment_; }
  [[nodiscard]] APFSManager& apfs() { return apfs_; }
  [[nodiscard]] HelperEvent::Client client() const { return identity_.client; }
  [[nodiscard]] const std::optional<std::string>& user() const { return identity_.user; }
  [[nodiscard]] std::optional<std::uint32_t> peerUID() const { return identity_.peerUID; }
  // Nobody waits for an answer any more.
  [[nodiscard]] bool isClientGone() const { return connection_.expired(); }
  // Whose rights count for what is asked. Throws internalError when that isn't known.
  [[nodiscard]] PeerUser requirePeer() const;

 private:
  // The calls under way, with the bytes of their request lines.
  struct Unanswered {
    unsigned count = 0;
    std::size_t bytes = 0;
    bool paused = false;
    [[nodiscard]] bool tooMany() const;
  };

  void begin(RpcCall call, std::size_t bytes);
  void enqueue(RpcCall call, std::size_t bytes);
  void run(const RpcCall& call, std::size_t bytes);
  [[nodiscard]] std::shared_ptr<Queue> queueOf(CommandQueue queue) const;
  void answer(const RpcCall& call, std::size_t bytes, const RpcReply& reply);
  void send(std::string line);
  void callStarted(std::size_t bytes);
  void callEnded(std::size_t bytes);

  HelperEnvironment& environment_;
  const std::weak_ptr<TransportConnection> connection_;
  const ClientIdentity identity_;
  APFSManager apfs_;
  const std::shared_ptr<Queue> queryQueue_;
  const std::shared_ptr<Queue> mutationQueue_;
  const std::shared_ptr<Queue> mountQueue_;
  const std::shared_ptr<Queue> historyQueue_;
  const Uuid shutdownRegistrationID_;

  // Keeps the place among its user's connections until the last command is done.
  const std::shared_ptr<const void> userPlace_;

  Guarded<Unanswered> unanswered_;
};

}  // namespace quillmark
