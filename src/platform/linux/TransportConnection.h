// LinuxConnection: one accepted peer. Split between the transport's loop, which alone reads, and closes the socket, and
// the connection's queue, which alone calls back.
// Threads: see each group of members.
#pragma once

#include <atomic>
#include <optional>

#include "base/UniqueFd.h"
#include "platform/Transport.h"
#include "platform/dispatch.h"
#include "platform/linux/TransportLines.h"
#include "platform/linux/TransportSocket.h"

namespace quillmark::os {

class LinuxPeerProcess;

// The epoll set and its wake-up, shared by the loop and all connections, so that neither outlives what it uses.
struct TransportPoll {
  UniqueFd epoll;
  UniqueFd wake;
  void wakeLoop() const;
};

class LinuxConnection final : public TransportConnection, public std::enable_shared_from_this<LinuxConnection> {
 public:
  struct Place {
    UniqueFd socket;
    std::uint64_t key;  // in the epoll set
    PeerCredentials peer;
    std::shared_ptr<const void> userPlace;
  };
  LinuxConnection(Dispatch& dispatch, std::shared_ptr<const TransportPoll> poll, TransportLimits limits, Place place);

  const PeerCredentials& peer() const override { return peer_; }
  std::shared_ptr<const void> userPlace() const override { return userPlace_; }
  void setCodeSigningRequirement(std::string_view requirement) override EXCLUDES(mutex_);
  void start(Callbacks callbacks) override EXCLUDES(mutex_);
  void send(std::string line) override EXCLUDES(mutex_);
  bool hasUnsent() override EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return !over_ && !outbox_.empty();
  }
  void pauseReading() override EXCLUDES(mutex_);
  void resumeReading() override EXCLUDES(mutex_);
  void close() override EXCLUDES(mutex_);

  [[nodiscard]] Queue& queue() { return *queue_; }
  // From any thread: the connection is over; the loop clears up.
  void end(CloseReason reason) EXCLUDES(mutex_);

  [[nodiscard]] bool isOver() const { return over_; }

  // The rest on the loop alone.
  [[nodiscard]] bool watch();
  // False when the connection is over and must be disposed of.
  [[nodiscard]] bool handle(std::uint32_t events, std::span<char> buffer) EXCLUDES(mutex_);
  // When its unsent bytes must have shrunk; nothing when none wait.
  [[nodiscard]] std::optional<MonotonicTime> stallDeadline() EXCLUDES(mutex_);
  void dispose() EXCLUDES(mutex_);

 private:
  enum class Writer { loop, other };

  // Whether the bytes just read were sent by the program that was let in.
  [[nodiscard]] bool isFromPeer(const std::optional<Sender>& sender) const;
  [[nodiscard]] bool readSome(std::span<char> buffer) EXCLUDES(mutex_);
  void deliver() EXCLUDES(mutex_);
  [[nodiscard]] bool nextBatch() EXCLUDES(mutex_);
  void tellClosed() EXCLUDES(mutex_);

  void scheduleDelivery() REQUIRES(mutex_);
  void scheduleClosed() REQUIRES(mutex_);
  void endLocked(CloseReason reason) REQUIRES(mutex_);
  void flush(Writer writer) REQUIRES(mutex_);
  void updateHold() REQUIRES(mutex_);
  [[nodiscard]] bool wantsToRead() REQUIRES(mutex_);
  void updateInterest() REQUIRES(mutex_);

  Dispatch& dispatch_;
  const std::shared_ptr<const TransportPoll> poll_;
  const TransportLimits limits_;
  const std::uint64_t key_;
  const PeerCredentials peer_;
  const std::shared_ptr<const void> userPlace_;
  const std::shared_ptr<LinuxPeerProcess> process_;
  const std::shared_ptr<Queue> queue_;

  // Changed under the mutex, looked at without it between two lines.
  std::atomic<bool> over_ = false;
  std::atomic<bool> held_ = false;  // paused, or too much waits to be sent
  std::atomic<bool> moreLinesFollow_ = false;
  std::atomic<bool> guarded_ = false;  // messages count from the peer's program alone

  // Confined to the loop.
  LineSplitter splitter_;

  // Confined to the queue.
  std::vector<std::string> batch_;
  std::size_t nextOfBatch_ = 0;

  Mutex mutex_;
  UniqueFd socket_;      // closed under the mutex by the loop, which may use it without
  Callbacks callbacks_;  // set before started_, then confined to the queue
  unsigned pauses_ GUARDED_BY(mutex_) = 0;
  bool started_ GUARDED_BY(mutex_) = false;
  bool closing_ GUARDED_BY(mutex_) = false;
  bool disposed_ GUARDED_BY(mutex_) = false;
  CloseReason reason_ GUARDED_BY(mutex_) = CloseReason::failed;
  std::vector<std::string> inbox_ GUARDED_BY(mutex_);
  std::size_t undeliveredBytes_ GUARDED_BY(mutex_) = 0;  // inbox and batch
  std::size_t batchBytes_ GUARDED_BY(mutex_) = 0;
  bool inboxFull_ GUARDED_BY(mutex_) = false;
  bool delivering_ GUARDED_BY(mutex_) = false;
  bool batchLeft_ GUARDED_BY(mutex_) = false;  // the delivery was held inside a batch
  LineQueue outbox_ GUARDED_BY(mutex_);
  bool outboxFull_ GUARDED_BY(mutex_) = false;
  bool loopWrites_ GUARDED_BY(mutex_) = false;
  MonotonicTime shrankAt_ GUARDED_BY(mutex_);
  std::uint32_t interest_ GUARDED_BY(mutex_) = 0;
};

}  // namespace quillmark::os
