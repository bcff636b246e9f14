// The listening socket's place in the file system, and what the kernel says of who connects to it.
// Errors: makeListeningSocket throws Error with a sentence for the operator.
#pragma once

#include <sys/un.h>

#include <optional>
#include <span>
#include <string>

#include "base/SysResult.h"
#include "base/UniqueFd.h"
#include "platform/Transport.h"

namespace quillmark::os {

// Listens at the path, which everybody may connect to: who may talk is decided at accept. The directory is made when it
// is missing, 0755; one that others may write, or that isn't ours, is refused. A socket that nobody listens on is
// replaced; one that somebody does listen on, and anything that is no socket, is refused.
[[nodiscard]] UniqueFd makeListeningSocket(const std::string& path);

[[nodiscard]] SysResult<PeerCredentials> peerCredentials(int socket);

// Makes receiveFrom tell who sent. On a listening socket it holds for all that connect from then on.
[[nodiscard]] bool askForSenders(int socket);

struct Sender {
  int pid;
  std::uint32_t uid;  // the real one, unless the sender named another of its own
};
struct Received {
  std::size_t bytes;  // 0 at the end of the stream
  std::optional<Sender> sender;
};
// What is there already, of one sender; never waits.
[[nodiscard]] SysResult<Received> receiveFrom(int socket, std::span<char> buffer);

// Absent for a path that no socket can have.
[[nodiscard]] std::optional<sockaddr_un> socketAddress(const std::string& path);

// The connected socket, non-blocking, or the errno; ENAMETOOLONG for a path that no socket can have.
[[nodiscard]] SysResult<UniqueFd> connectTo(const std::string& path);

}  // namespace quillmark::os
