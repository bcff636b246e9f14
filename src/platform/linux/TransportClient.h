// LinuxClientChannel: a client's end of the unix socket.
// Ownership: owns the socket.
// Threads:   one thread at a time.
// Errors:    Error in the POSIX domain with a sentence for the person at the terminal: ENOENT and ECONNREFUSED when the
//            service doesn't run, EPERM when somebody else than the expected user listens, EPIPE when the server is
//            gone, ETIMEDOUT, EMSGSIZE for a line past the limit.
#pragma once

#include <cstdint>
#include <memory>

#include "base/UniqueFd.h"
#include "platform/Transport.h"

namespace quillmark::os {

class LinuxClientChannel final : public ClientChannel {
 public:
  // Talks to nobody but the expected user's process: the kernel tells who listens.
  [[nodiscard]] static std::unique_ptr<LinuxClientChannel> connect(const std::string& path,
                                                                   std::uint32_t expectedServerUid = 0);
  explicit LinuxClientChannel(UniqueFd socket, std::size_t maxLineBytes = TransportLimits{}.maxReplyBytes);

  // Takes in what the server sends meanwhile, so that neither end waits for the other.
  void send(std::string_view line) override;
  std::string receive(std::chrono::nanoseconds timeout) override;

 private:
  [[nodiscard]] bool takeLine(std::string& line);
  // False at the end of the stream.
  [[nodiscard]] bool readSome();
  void writeAll(std::string_view bytes);

  const UniqueFd socket_;
  const std::size_t maxLineBytes_;
  std::string received_;
  std::size_t lineStart_ = 0;
  std::size_t searched_ = 0;  // no newline between the line's start and here
};

}  // namespace quillmark::os
