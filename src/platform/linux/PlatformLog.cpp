#include "platform/linux/PlatformLog.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace quillmark::os {
namespace {

constexpr std::size_t maxMessageBytes = 64 * 1024;
constexpr std::string_view programName = "quillmark-helper";

int priorityOf(PlatformLogType type) {
  switch (type) {
    case PlatformLogType::info: return LOG_INFO;
    case PlatformLogType::normal: return LOG_NOTICE;
    case PlatformLogType::error: return LOG_ERR;
    case PlatformLogType::fault: return LOG_CRIT;
  }
  return LOG_NOTICE;
}

// The binary form of a field: it takes any bytes, newlines too.
void appendField(std::string& datagram, std::string_view name, std::string_view value) {
  datagram.append(name) += '\n';
  for (unsigned byte = 0; byte < 8; ++byte) datagram += static_cast<char>(std::uint64_t{value.size()} >> (8 * byte));
  datagram.append(value) += '\n';
}

std::string journalDatagram(PlatformLogType type, std::string_view subsystem, std::string_view category,
                            std::string_view message) {
  std::string datagram;
  appendField(datagram, "PRIORITY", std::to_string(priorityOf(type)));
  appendField(datagram, "SYSLOG_IDENTIFIER", programName);
  appendField(datagram, "SUBSYSTEM", subsystem);
  appendField(datagram, "CATEGORY", category);
  appendField(datagram, "MESSAGE", message);
  return datagram;
}

// The receiver adds the time.
std::string syslogDatagram(PlatformLogType type, std::string_view subsystem, std::string_view category,
                           std::string_view message) {
  std::string datagram = "<" + std::to_string(LOG_DAEMON | priorityOf(type)) + ">";
  datagram.append(programName).append("[").append(std::to_string(::getpid())).append("]: [");
  datagram.append(subsystem).append(":").append(category).append("] ").append(message);
  return datagram;
}

std::string_view cut(std::string_view message) {
  if (message.size() <= maxMessageBytes) return message;
  std::size_t end = maxMessageBytes;
  while (end > 0 && (static_cast<unsigned char>(message[end]) & 0xC0) == 0x80) --end;
  return message.substr(0, end);
}

}  // namespace

LinuxPlatformLog::LinuxPlatformLog(LogSockets sockets)
    : sockets_(std::move(sockets)), socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}

void LinuxPlatformLog::log(PlatformLogType type, std::string_view subsystem, std::string_view category,
                           std::string_view message) {
  const int callersError = errno;
  message = cut(message);
  if (!sendTo(sockets_.journal, journalDatagram(type, subsystem, category, message))) {
    static_cast<void>(sendTo(sockets_.syslog, syslogDatagram(type, subsystem, category, message)));
  }
  errno = callersError;
}

// False when nobody listens there; a datagram that the listener is too busy to take is lost.
bool LinuxPlatformLog::sendTo(const std::string& path, std::string_view datagram) const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (!socket_.valid() || path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.data(), path.size());
  const ssize_t sent = ::sendto(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return sent >= 0 || (errno != ENOENT && errno != ECONNREFUSED && errno != ENOTDIR && errno != EACCES);
}

}  // namespace quillmark::os
