#include "platform/linux/TransportClient.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>

#include "base/Error.h"
#include "platform/linux/TransportSocket.h"

namespace quillmark::os {
namespace {

constexpr std::size_t readBytes = 64 * 1024;
constexpr std::chrono::hours longestWait{24 * 365};

Error clientError(int error, std::string description) {
  return Error(std::string(posixErrorDomain), error, std::move(description));
}

Error connectError(const std::string& path, int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR: return clientError(error, "The Quillmark helper is not running: there is no socket at " + path + ".");
    case ECONNREFUSED:
      return clientError(error, "The Quillmark helper is not running: nobody listens at " + path + ".");
    case EACCES: return clientError(error, "You may not connect to the Quillmark helper at " + path + ".");
    case EAGAIN: return clientError(error, "The Quillmark helper at " + path + " is too busy to answer.");
    default: return posixError("connect", path, error);
  }
}

Error tooLongError() { return clientError(EMSGSIZE, "The Quillmark helper sent more than it may."); }
Error goneError() { return clientError(EPIPE, "The Quillmark helper closed the connection."); }

}  // namespace

std::unique_ptr<LinuxClientChannel> LinuxClientChannel::connect(const std::string& path,
                                                                std::uint32_t expectedServerUid) {
  SysResult<UniqueFd> socket = connectTo(path);
  if (!socket) throw connectError(path, socket.error());
  ucred server;
  socklen_t length = sizeof server;
  if (::getsockopt(socket->get(), SOL_SOCKET, SO_PEERCRED, &server, &length) < 0) throw connectError(path, errno);
  if (server.uid != expectedServerUid) {
    throw clientError(EPERM, "The socket at " + path + " belongs to user " + std::to_string(server.uid) +
                                 ", not to the Quillmark helper.");
  }
  return std::make_unique<LinuxClientChannel>(std::move(*socket));
}

LinuxClientChannel::LinuxClientChannel(UniqueFd socket, std::size_t maxLineBytes)
    : socket_(std::move(socket)), maxLineBytes_(maxLineBytes) {
  ::fcntl(socket_.get(), F_SETFL, O_NONBLOCK);
}

void LinuxClientChannel::send(std::string_view line) {
  std::string whole;
  whole.reserve(line.size() + 1);
  whole.append(line) += '\n';
  writeAll(whole);
}

void LinuxClientChannel::writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
      continue;
    }
    if (errno == EINTR) continue;
    if (errno == EPIPE || errno == ECONNRESET) throw goneError();
    if (errno != EAGAIN) throw clientError(errno, errnoText(errno));
    pollfd wait{socket_.get(), POLLOUT | POLLIN, 0};
    ::poll(&wait, 1, -1);
    if ((wait.revents & POLLIN) != 0 && !readSome()) throw goneError();
  }
}

std::string LinuxClientChannel::receive(std::chrono::nanoseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + std::min<std::chrono::nanoseconds>(timeout, longestWait);
  std::string line;
  while (!takeLine(line)) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    pollfd wait{socket_.get(), POLLIN, 0};
    const int ready = ::poll(&wait, 1, static_cast<int>(std::clamp<std::int64_t>(left, 0, 3'600'000)));
    if (ready == 0 && left <= 0) throw clientError(ETIMEDOUT, "The Quillmark helper did not answer in time.");
    if (ready > 0 && !readSome()) throw goneError();
  }
  return line;
}

bool LinuxClientChannel::takeLine(std::string& line) {
  const std::size_t newline = received_.find('\n', searched_);
  if (newline == std::string::npos) {
    searched_ = received_.size();
    if (searched_ - lineStart_ > maxLineBytes_) throw tooLongError();
    return false;
  }
  line.assign(received_, lineStart_, newline - lineStart_);
  lineStart_ = searched_ = newline + 1;
  if (lineStart_ == received_.size()) {
    received_ = {};
    lineStart_ = searched_ = 0;
  }
  return true;
}

bool LinuxClientChannel::readSome() {
  // What was taken already goes first, so that the buffer holds no more than is wanted of it.
  if (lineStart_ > 0) {
    received_.erase(0, lineStart_);
    searched_ -= lineStart_;
    lineStart_ = 0;
  }
  if (received_.size() > 2 * maxLineBytes_ + readBytes) throw tooLongError();
  char buffer[readBytes];
  const ssize_t count = ::recv(socket_.get(), buffer, sizeof buffer, MSG_DONTWAIT);
  if (count > 0) received_.append(buffer, static_cast<std::size_t>(count));
  return count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
}

}  // namespace quillmark::os
