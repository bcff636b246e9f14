#include "platform/linux/TransportSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/Error.h"
#include "platform/linux/PeerProcess.h"

namespace quillmark::os {
namespace {

// As many as the machine allows (somaxconn): a crowd of refused knockers must not keep others from being heard.
constexpr int backlog = SOMAXCONN;
// How long a client waits for room in the crowd.
constexpr timeval connectPatience{.tv_sec = 5, .tv_usec = 0};
constexpr int soPeerPidfd = 77;  // SO_PEERPIDFD of Linux 6.5

const sockaddr* generic(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

UniqueFd streamSocket() { return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)); }

UniqueFd peerPidfd(int socket) {
  int pidfd = -1;
  socklen_t length = sizeof pidfd;
  if (::getsockopt(socket, SOL_SOCKET, soPeerPidfd, &pidfd, &length) < 0) return UniqueFd();
  return UniqueFd(pidfd);  // close-on-exec
}

void prepareDirectory(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return;
  const std::string directory = path.substr(0, slash);
  if (::mkdir(directory.c_str(), 0755) == 0) {
    if (::chmod(directory.c_str(), 0755) < 0) throw posixError("chmod", directory, errno);
    return;
  }
  if (errno != EEXIST) throw posixError("mkdir", directory, errno);
  struct stat facts;
  if (::lstat(directory.c_str(), &facts) < 0) throw posixError("lstat", directory, errno);
  if (!S_ISDIR(facts.st_mode)) throw posixError("mkdir", directory, ENOTDIR);
  if (facts.st_uid != ::geteuid() || (facts.st_mode & 022) != 0) throw posixError("listen", directory, EPERM);
}

void refuseWhatIsInUse(const std::string& path) {
  struct stat facts;
  if (::lstat(path.c_str(), &facts) < 0) {
    if (errno == ENOENT) return;
    throw posixError("lstat", path, errno);
  }
  if (!S_ISSOCK(facts.st_mode)) throw posixError("listen", path, EEXIST);
  const SysResult<UniqueFd> connected = connectTo(path);
  if (connected || connected.error() != ECONNREFUSED) throw posixError("listen", path, EADDRINUSE);
}

}  // namespace

std::optional<sockaddr_un> socketAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return std::nullopt;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

UniqueFd makeListeningSocket(const std::string& path) {
  prepareDirectory(path);
  refuseWhatIsInUse(path);
  // Made beside its place and moved there when it answers, so that nobody finds it half made.
  const std::string making = path + ".new";
  const std::optional<sockaddr_un> address = socketAddress(making);
  if (!address) throw posixError("listen", path, ENAMETOOLONG);
  UniqueFd socket = streamSocket();
  if (!socket.valid()) throw posixError("socket", path, errno);
  ::unlink(making.c_str());
  if (::bind(socket.get(), generic(*address), sizeof *address) < 0) throw posixError("bind", making, errno);
  if (::chmod(making.c_str(), 0666) < 0) throw posixError("chmod", making, errno);
  if (::listen(socket.get(), backlog) < 0) throw posixError("listen", making, errno);
  if (::rename(making.c_str(), path.c_str()) < 0) throw posixError("rename", path, errno);
  return socket;
}

SysResult<PeerCredentials> peerCredentials(int socket) {
  ucred credentials;
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) < 0) return Errno{errno};
  PeerCredentials peer{.uid = credentials.uid,
                       .gid = credentials.gid,
                       .groups = {},
                       .pid = credentials.pid,
                       .process = std::make_shared<LinuxPeerProcess>(credentials.pid, peerPidfd(socket))};
  peer.groups.resize(32);
  for (;;) {
    length = static_cast<socklen_t>(peer.groups.size() * sizeof(std::uint32_t));
    const int result = ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, peer.groups.data(), &length);
    if (result < 0 && errno != ERANGE) return Errno{errno};
    peer.groups.resize(length / sizeof(std::uint32_t));
    if (result == 0) return peer;
  }
}

bool askForSenders(int socket) {
  const int on = 1;
  return ::setsockopt(socket, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0;
}

SysResult<Received> receiveFrom(int socket, std::span<char> buffer) {
  iovec place{.iov_base = buffer.data(), .iov_len = buffer.size()};
  // Room for the sender and no more: descriptors that somebody passes find none and are dropped.
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
  msghdr message{};
  message.msg_iov = &place;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t count = ::recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (count < 0) return Errno{errno};
  Received received{.bytes = static_cast<std::size_t>(count), .sender = {}};
  const cmsghdr* header = CMSG_FIRSTHDR(&message);
  if (header && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_CREDENTIALS) {
    ucred sender;
    std::memcpy(&sender, CMSG_DATA(header), sizeof sender);
    received.sender = Sender{.pid = sender.pid, .uid = sender.uid};
  }
  return received;
}

SysResult<UniqueFd> connectTo(const std::string& path) {
  const std::optional<sockaddr_un> address = socketAddress(path);
  if (!address) return Errno{ENAMETOOLONG};
  UniqueFd socket = streamSocket();
  if (!socket.valid()) return Errno{errno};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &connectPatience, sizeof connectPatience);
  while (::connect(socket.get(), generic(*address), sizeof *address) < 0) {
    if (errno != EINTR) return Errno{errno};
  }
  return socket;
}

}  // namespace quillmark::os
