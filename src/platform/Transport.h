// Transport: lines of text to and from peers that the kernel vouches for.
// Ownership: a connection is shared between its user and the backend, which lets go of it when it ends.
// Threads:   send, pause, resume and close from any thread. received() and closed() run one at a time for a connection,
//            each connection on a queue of its own: a callback that waits delays nobody else.
// Bounds:    a line of at most maxRequestBytes in; while more than maxUnsentBytes wait to be sent nothing more is read,
//            and nothing delivered, until half of them are gone;
//            unsent bytes that don't shrink for stallLimit end the connection; maxConnectionsPerUser at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/UniqueFunction.h"

namespace quillmark {

struct TransportLimits {
  std::size_t maxRequestBytes = 4 * 1024 * 1024;
  std::size_t maxReplyBytes = 512 * 1024 * 1024;
  std::size_t maxUnsentBytes = 32 * 1024 * 1024;
  std::chrono::nanoseconds stallLimit{std::chrono::seconds{60}};
  unsigned maxConnectionsPerUser = 16;
};

// The backend's hold on the peer's process, so that another one with its number can't pass as it.
class PeerProcess {
 public:
  virtual ~PeerProcess() = default;
};

// Who is at the other end, told by the kernel at connect.
struct PeerCredentials {
  std::uint32_t uid = 0;  // effective
  std::uint32_t gid = 0;
  std::vector<std::uint32_t> groups;  // supplementary
  int pid = 0;
  std::shared_ptr<PeerProcess> process;
};

enum class CloseReason {
  peerClosed,   // end of file, or the peer is gone; lines that were not delivered by then are dropped
  closedByUs,   // close()
  lineTooLong,  // in or out
  stalled,      // the peer stopped reading
  notThePeer,   // a message that wasn't sent by the program that was let in
  failed,       // anything else of the platform
};

class TransportConnection {
 public:
  struct Callbacks {
    UniqueFunction<void(std::string line)> received;  // without its newline
    UniqueFunction<void(CloseReason)> closed;         // once, and nothing after it
  };

  virtual ~TransportConnection() = default;
  [[nodiscard]] virtual const PeerCredentials& peer() const = 0;
  // Held by whoever works for the peer: as long as anybody holds it, also after the end, the connection counts among its
  // user's. Null where the backend counts none.
  [[nodiscard]] virtual std::shared_ptr<const void> userPlace() const { return nullptr; }
  // From here on, for the connection's whole life, only messages count that the peer's own process sends while it runs
  // the program whose audit token was read before; the first other one ends the connection. Call before start().
  virtual void setCodeSigningRequirement(std::string_view requirement) = 0;
  // Nothing is read before this. Call once.
  virtual void start(Callbacks callbacks) = 0;
  // Queues the line (a newline is added); in order of the calls. Never waits. After the end it does nothing.
  virtual void send(std::string line) = 0;
  // True while something sent hasn't left for the peer, and still can.
  [[nodiscard]] virtual bool hasUnsent() = 0;
  // Counted: as many resumes as pauses. What was read already waits too: paused from within received(), that was the
  // last line until the resume.
  virtual void pauseReading() = 0;
  virtual void resumeReading() = 0;
  // What was sent before goes out first, within the stall limit.
  virtual void close() = 0;
};

class TransportListener {
 public:
  // Decides on a new peer, on the connection's queue; false ends the connection with nothing said. Decisions on several
  // peers may overlap.
  using Accept = UniqueFunction<bool(const std::shared_ptr<TransportConnection>&)>;

  virtual ~TransportListener() = default;
  // Throws Error when the place can't be listened on.
  virtual void resume(Accept accept) = 0;
};

// The client's end of a connection, blocking: for programs that wait for one answer at a time.
class ClientChannel {
 public:
  virtual ~ClientChannel() = default;
  // Throws Error when the line can't be sent.
  virtual void send(std::string_view line) = 0;
  // The next line without its newline. Throws Error when the server is gone or the deadline passed.
  [[nodiscard]] virtual std::string receive(std::chrono::nanoseconds timeout) = 0;
};

}  // namespace quillmark
