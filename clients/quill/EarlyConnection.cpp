#include "quill/EarlyConnection.h"

#include <unistd.h>

#include "platform/linux/TransportClient.h"
#include "quill/Failures.h"

namespace quillmark::cli {

EarlyConnection connectAndDropGroup(const std::string& socket) {
  EarlyConnection early;
  const gid_t own = ::getgid();
  if (::getegid() == own) return early;
  try {
    early.channel = os::LinuxClientChannel::connect(socket);
  } catch (const Error& error) {
    early.failure = error;
  }
  if (::setresgid(own, own, own) != 0 || ::getegid() != own) ::_exit(exitFailed);
  return early;
}

}  // namespace quillmark::cli
