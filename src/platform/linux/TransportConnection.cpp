#include "platform/linux/TransportConnection.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "platform/linux/PeerProcess.h"

namespace quillmark::os {
namespace {

// Read but not delivered: past this nothing more is read until half of it is gone.
constexpr std::size_t maxUndeliveredBytes = 1024 * 1024;
// What a waiting line costs beside its bytes.
constexpr std::size_t lineOverhead = 64;
constexpr std::size_t piecesPerWrite = 16;
constexpr std::size_t bytesPerWrite = 256 * 1024;

}  // namespace

void TransportPoll::wakeLoop() const {
  const std::uint64_t one = 1;
  static_cast<void>(::write(wake.get(), &one, sizeof one) == sizeof one);
}

LinuxConnection::LinuxConnection(Dispatch& dispatch, std::shared_ptr<const TransportPoll> poll, TransportLimits limits,
                                 Place place)
    : dispatch_(dispatch), poll_(std::move(poll)), limits_(limits), key_(place.key), peer_(std::move(place.peer)),
      userPlace_(std::move(place.userPlace)), process_(std::dynamic_pointer_cast<LinuxPeerProcess>(peer_.process)),
      queue_(dispatch.makeQueue({.label = "com.harrowfern.quillmark.helper.connection"})),
      splitter_(limits.maxRequestBytes), mutex_(dispatch), socket_(std::move(place.socket)) {}

void LinuxConnection::setCodeSigningRequirement(std::string_view /*requirement*/) {
  guarded_ = true;
  // Without a program that is known nothing the peer sends could ever count, and nothing is for it.
  if (!process_ || !process_->held()) end(CloseReason::notThePeer);
}

bool LinuxConnection::isFromPeer(const std::optional<Sender>& sender) const {
  if (!sender || sender->pid != peer_.pid || sender->uid != peer_.uid) return false;
  return process_ && process_->runsWhatIsHeld();
}

void LinuxConnection::start(Callbacks callbacks) {
  MutexLock lock(mutex_);
  callbacks_ = std::move(callbacks);
  started_ = true;
  if (over_) return scheduleClosed();
  updateInterest();
}

void LinuxConnection::send(std::string line) {
  MutexLock lock(mutex_);
  if (over_ || closing_) return;
  if (line.size() > limits_.maxReplyBytes) return endLocked(CloseReason::lineTooLong);
  if (outbox_.empty()) shrankAt_ = dispatch_.clock().monotonic();
  outbox_.append(std::move(line));
  updateHold();
  if (loopWrites_) {
    if (outboxFull_) updateInterest();
    return;
  }
  // While more requests are at hand more replies will follow at once: the loop then writes what has gathered.
  if (moreLinesFollow_) {
    loopWrites_ = true;
    return updateInterest();
  }
  flush(Writer::other);
}

void LinuxConnection::pauseReading() {
  MutexLock lock(mutex_);
  ++pauses_;
  updateHold();
  updateInterest();
}

void LinuxConnection::resumeReading() {
  MutexLock lock(mutex_);
  --pauses_;
  updateHold();
  updateInterest();
}

// Whether lines that were read must wait; once they need not, their delivery goes on.
void LinuxConnection::updateHold() {
  outboxFull_ = outbox_.bytes() > (outboxFull_ ? limits_.maxUnsentBytes / 2 : limits_.maxUnsentBytes);
  const bool held = pauses_ > 0 || outboxFull_;
  if (held_.exchange(held) && !held && (batchLeft_ || !inbox_.empty())) scheduleDelivery();
}

void LinuxConnection::close() {
  MutexLock lock(mutex_);
  if (over_ || closing_) return;
  closing_ = true;
  if (outbox_.empty()) return endLocked(CloseReason::closedByUs);
  updateInterest();
}

void LinuxConnection::end(CloseReason reason) {
  MutexLock lock(mutex_);
  endLocked(reason);
}

// From here on nothing is sent or delivered; the loop learns of it by the wake-up and disposes.
void LinuxConnection::endLocked(CloseReason reason) {
  if (over_) return;
  over_ = true;
  reason_ = closing_ && reason == CloseReason::peerClosed ? CloseReason::closedByUs : reason;
  if (!disposed_) poll_->wakeLoop();
  if (started_) scheduleClosed();
}

void LinuxConnection::scheduleClosed() {
  queue_->async([self = shared_from_this()] { self->tellClosed(); });
}

void LinuxConnection::tellClosed() {
  CloseReason reason;
  {
    MutexLock lock(mutex_);
    reason = reason_;
  }
  batch_ = {};
  Callbacks callbacks = std::exchange(callbacks_, {});
  callbacks.closed(reason);
}

void LinuxConnection::scheduleDelivery() {
  if (delivering_ || over_) return;
  delivering_ = true;
  queue_->async([self = shared_from_this()] { self->deliver(); });
}

void LinuxConnection::deliver() {
  while (nextBatch()) {
    while (nextOfBatch_ < batch_.size() && !held_ && !over_) {
      std::string line = std::move(batch_[nextOfBatch_++]);
      moreLinesFollow_ = nextOfBatch_ < batch_.size();
      callbacks_.received(std::move(line));
    }
  }
}

// False when the delivery has nothing to do for now.
bool LinuxConnection::nextBatch() {
  MutexLock lock(mutex_);
  moreLinesFollow_ = false;
  batchLeft_ = nextOfBatch_ < batch_.size();
  if (over_ || held_) {
    delivering_ = false;
    return false;
  }
  if (batchLeft_) return true;
  undeliveredBytes_ -= std::exchange(batchBytes_, 0);
  batch_.clear();
  nextOfBatch_ = 0;
  batch_.swap(inbox_);
  batchBytes_ = undeliveredBytes_;
  if (inboxFull_) updateInterest();
  delivering_ = !batch_.empty();
  return delivering_;
}

bool LinuxConnection::watch() {
  MutexLock lock(mutex_);
  epoll_event event{};
  event.events = interest_ = EPOLLRDHUP;
  event.data.u64 = key_;
  return ::epoll_ctl(poll_->epoll.get(), EPOLL_CTL_ADD, socket_.get(), &event) == 0;
}

bool LinuxConnection::handle(std::uint32_t events, std::span<char> buffer) {
  if (over_) return false;
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) {
    end(CloseReason::peerClosed);
    return false;
  }
  if ((events & EPOLLIN) != 0 && !readSome(buffer)) return false;
  if ((events & EPOLLOUT) == 0) return true;
  MutexLock lock(mutex_);
  flush(Writer::loop);
  return !over_;
}

bool LinuxConnection::readSome(std::span<char> buffer) {
  const SysResult<Received> received = receiveFrom(socket_.get(), buffer);
  if (received.error() == EAGAIN || received.error() == EINTR) return true;
  if (!received || received->bytes == 0) {
    end(received || received.error() == ECONNRESET ? CloseReason::peerClosed : CloseReason::failed);
    return false;
  }
  if (guarded_ && !isFromPeer(received->sender)) {
    end(CloseReason::notThePeer);
    return false;
  }
  std::vector<std::string> lines;
  std::size_t bytes = 0;
  const bool whole = splitter_.feed({buffer.data(), received->bytes}, [&](std::string line) {
    bytes += line.size() + lineOverhead;
    lines.push_back(std::move(line));
  });
  if (!whole) {
    end(CloseReason::lineTooLong);
    return false;
  }
  if (lines.empty()) return true;
  MutexLock lock(mutex_);
  undeliveredBytes_ += bytes;
  if (inbox_.empty()) {
    inbox_ = std::move(lines);
  } else {
    inbox_.insert(inbox_.end(), std::make_move_iterator(lines.begin()), std::make_move_iterator(lines.end()));
  }
  if (undeliveredBytes_ > maxUndeliveredBytes) updateInterest();
  if (!held_) scheduleDelivery();
  return true;
}

// Writes what the socket takes; leaves the rest to the loop.
void LinuxConnection::flush(Writer writer) {
  if (over_) return;
  std::array<iovec, piecesPerWrite> pieces;
  msghdr message{};
  message.msg_iov = pieces.data();
  message.msg_iovlen = outbox_.next(pieces, bytesPerWrite);
  const ssize_t count = message.msg_iovlen == 0 ? 0 : ::sendmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (count < 0 && errno != EAGAIN && errno != EINTR && errno != ENOBUFS) {
    return endLocked(errno == EPIPE || errno == ECONNRESET ? CloseReason::peerClosed : CloseReason::failed);
  }
  if (count > 0) {
    outbox_.consume(static_cast<std::size_t>(count));
    shrankAt_ = dispatch_.clock().monotonic();
  }
  updateHold();
  if (outbox_.empty() && closing_) return endLocked(CloseReason::closedByUs);
  loopWrites_ = !outbox_.empty();
  updateInterest();
  // The loop has to know of a new deadline.
  if (loopWrites_ && writer == Writer::other) poll_->wakeLoop();
}

bool LinuxConnection::wantsToRead() {
  inboxFull_ = undeliveredBytes_ > (inboxFull_ ? maxUndeliveredBytes / 2 : maxUndeliveredBytes);
  return started_ && !closing_ && !held_ && !inboxFull_;
}

void LinuxConnection::updateInterest() {
  if (disposed_) return;
  std::uint32_t wanted = EPOLLRDHUP;
  if (wantsToRead()) wanted |= EPOLLIN;
  if (loopWrites_) wanted |= EPOLLOUT;
  if (wanted == interest_) return;
  interest_ = wanted;
  epoll_event event{};
  event.events = wanted;
  event.data.u64 = key_;
  ::epoll_ctl(poll_->epoll.get(), EPOLL_CTL_MOD, socket_.get(), &event);
}

std::optional<MonotonicTime> LinuxConnection::stallDeadline() {
  MutexLock lock(mutex_);
  if (over_ || outbox_.empty()) return std::nullopt;
  return shrankAt_ + limits_.stallLimit;
}

void LinuxConnection::dispose() {
  MutexLock lock(mutex_);
  disposed_ = true;
  outbox_.clear();
  inbox_ = {};
  ::epoll_ctl(poll_->epoll.get(), EPOLL_CTL_DEL, socket_.get(), nullptr);
  socket_.reset();
}

}  // namespace quillmark::os
