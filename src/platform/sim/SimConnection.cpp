#include "platform/sim/SimConnection.h"

#include <algorithm>
#include <cerrno>

#include "base/Error.h"

namespace quillmark::sim {

void SimConnection::Lane::push(Line line) {
  bytes += line.bytes();
  lines.push_back(std::move(line));
}

std::string SimConnection::Lane::pop() {
  std::string text = std::move(lines.front().text);
  lines.pop_front();
  bytes -= text.size() + 1;
  return text;
}

SimConnection::SimConnection(Dispatch& server, Dispatch& client, Setting setting)
    : server_(server), client_(client), setting_(std::move(setting)),
      queue_(server.makeQueue({.label = "com.harrowfern.quillmark.helper.connection"})), draws_(setting_.seed),
      clientMutex_(client), clientChanged_(client) {}

SimConnection::Line SimConnection::stamped(std::string text, const Lane& lane) {
  MonotonicTime arrival = server_.clock().monotonic();
  if (setting_.options.maxDelay.count() > 0) {
    arrival += setting_.options.maxDelay * static_cast<int>(draws_.below(1001)) / 1000;
  }
  if (!lane.lines.empty()) arrival = std::max(arrival, lane.lines.back().arrival);
  return {std::move(text), arrival};
}

void SimConnection::start(Callbacks callbacks) {
  callbacks_ = std::move(callbacks);
  started_ = true;
  if (over_) return scheduleClosed();
  scheduleDelivery();
}

void SimConnection::send(std::string line) {
  if (over_ || closing_) return;
  if (line.size() > setting_.options.limits.maxReplyBytes) return end(CloseReason::lineTooLong);
  if (unsent_.lines.empty()) shrankAt_ = server_.clock().monotonic();
  unsent_.push(stamped(std::move(line), unsent_.lines.empty() ? toClient_ : unsent_));
  moveToClient();
}

// As much as the client, or its socket, takes.
void SimConnection::moveToClient() {
  const auto fits = [&] {
    return clientReads_ || toClient_.bytes == 0 ||
           toClient_.bytes + unsent_.lines.front().bytes() <= setting_.options.socketBytes;
  };
  while (!unsent_.lines.empty() && fits()) {
    const MonotonicTime arrival = unsent_.lines.front().arrival;
    toClient_.push({unsent_.pop(), arrival});
    shrankAt_ = server_.clock().monotonic();
  }
  const std::size_t most = setting_.options.limits.maxUnsentBytes;
  const bool wasFull = std::exchange(outboxFull_, unsent_.bytes > (outboxFull_ ? most / 2 : most));
  clientChanged_.notifyAll();
  if (unsent_.lines.empty() && closing_) return end(CloseReason::closedByUs);
  if (!unsent_.lines.empty()) watchForStall();
  if (wasFull && !outboxFull_) scheduleDelivery();
}

void SimConnection::watchForStall() {
  if (stallWatched_ || serverGone_) return;
  stallWatched_ = true;
  const auto left = shrankAt_ + setting_.options.limits.stallLimit - server_.clock().monotonic();
  queue_->asyncAfter(left, [self = shared_from_this()] {
    self->stallWatched_ = false;
    if (self->over_ || self->unsent_.lines.empty()) return;
    const MonotonicTime now = self->server_.clock().monotonic();
    if (now >= self->shrankAt_ + self->setting_.options.limits.stallLimit) return self->end(CloseReason::stalled);
    self->watchForStall();
  });
}

void SimConnection::pauseReading() { ++pauses_; }

void SimConnection::resumeReading() {
  if (--pauses_ == 0) scheduleDelivery();
}

void SimConnection::close() {
  if (over_ || closing_) return;
  closing_ = true;
  moveToClient();
}

void SimConnection::end(CloseReason reason) {
  if (over_) return;
  over_ = true;
  reason_ = closing_ && reason == CloseReason::peerClosed ? CloseReason::closedByUs : reason;
  toServer_ = {};
  unsent_ = {};
  clientChanged_.notifyAll();
  if (UniqueFunction<void()> onEnd = std::exchange(onEnd_, nullptr)) onEnd();
  if (started_) scheduleClosed();
}

void SimConnection::serverGone() {
  serverGone_ = true;
  end(CloseReason::peerClosed);
}

void SimConnection::scheduleClosed() {
  if (serverGone_) return;
  queue_->async([self = shared_from_this()] {
    Callbacks callbacks = std::exchange(self->callbacks_, {});
    callbacks.closed(self->reason_);
  });
}

void SimConnection::scheduleDelivery() {
  if (delivering_ || over_ || toServer_.lines.empty() || !serverReads()) return;
  delivering_ = true;
  const auto left = toServer_.lines.front().arrival - server_.clock().monotonic();
  const auto step = [self = shared_from_this()] { self->deliver(); };
  if (left.count() <= 0) {
    queue_->async(step);
  } else {
    queue_->asyncAfter(left, step);
  }
}

void SimConnection::deliver() {
  const auto arrived = [&] {
    return !toServer_.lines.empty() && toServer_.lines.front().arrival <= server_.clock().monotonic();
  };
  while (!over_ && serverReads() && arrived()) {
    if (guarded_ && toServer_.lines.front().ofAnother) {
      end(CloseReason::notThePeer);
      break;
    }
    std::string line = toServer_.pop();
    clientChanged_.notifyAll();
    callbacks_.received(std::move(line));
  }
  delivering_ = false;
  scheduleDelivery();
}

void SimConnection::clientSend(std::string_view line) {
  if (!over_ && line.size() > setting_.options.limits.maxRequestBytes) end(CloseReason::lineTooLong);
  MutexLock lock(clientMutex_);
  // What the server doesn't read fills the socket, and then the sender waits.
  while (!over_ && toServer_.bytes > setting_.options.socketBytes) clientChanged_.wait(clientMutex_);
  if (over_) throw posixError("send", "connection", EPIPE);
  Line sent = stamped(std::string(line), toServer_);
  sent.ofAnother = another_;
  toServer_.push(std::move(sent));
  scheduleDelivery();
}

std::string SimConnection::clientReceive(std::chrono::nanoseconds timeout) {
  const MonotonicTime deadline = client_.clock().monotonic() + timeout;
  MutexLock lock(clientMutex_);
  for (;;) {
    const MonotonicTime now = client_.clock().monotonic();
    const bool waits = !toClient_.lines.empty();
    if (waits && toClient_.lines.front().arrival <= now) break;
    if (!waits && over_) throw posixError("receive", "connection", EPIPE);
    if (now >= deadline) throw posixError("receive", "connection", ETIMEDOUT);
    clientChanged_.waitUntil(clientMutex_, waits ? std::min(deadline, toClient_.lines.front().arrival) : deadline);
  }
  std::string text = toClient_.pop();
  if (!over_) moveToClient();
  return text;
}

}  // namespace quillmark::sim
