// LinuxPlatformLog: the machine's journal, or its syslog where there is no journal. Speaks the datagram protocols
// itself (https://systemd.io/JOURNAL_NATIVE_PROTOCOL, RFC 3164): the library calls wait while the daemon's queue is
// full, and a full log must not hold up the service. Threads: thread-safe; never waits. Errors:  none; what the daemon
// doesn't take at once is lost, and a message past 64 KiB is cut.
#pragma once

#include <string>

#include "base/UniqueFd.h"
#include "platform/PlatformLog.h"

namespace quillmark::os {

struct LogSockets {
  std::string journal = "/run/systemd/journal/socket";
  std::string syslog = "/dev/log";
};

class LinuxPlatformLog final : public PlatformLog {
 public:
  explicit LinuxPlatformLog(LogSockets sockets = {});
  void log(PlatformLogType type, std::string_view subsystem, std::string_view category,
           std::string_view message) override;

 private:
  [[nodiscard]] bool sendTo(const std::string& path, std::string_view datagram) const;

  const LogSockets sockets_;
  const UniqueFd socket_;
};

}  // namespace quillmark::os
