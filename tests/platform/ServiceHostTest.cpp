#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/linux/ServiceHost.h"

namespace quillmark::os {
namespace {

enum class Passed { listening, notListening, datagrams, network, pipe };

UniqueFd make(Passed what) {
  if (what == Passed::pipe) {
    int ends[2];
    return ::pipe(ends) == 0 ? UniqueFd(ends[0]) : UniqueFd();
  }
  UniqueFd socket(
      ::socket(what == Passed::network ? AF_INET : AF_UNIX, what == Passed::datagrams ? SOCK_DGRAM : SOCK_STREAM, 0));
  if (what == Passed::network) return ::listen(socket.get(), 1) == 0 ? std::move(socket) : UniqueFd();
  // A name that the kernel chooses, in no directory.
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const bool bound = ::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address.sun_family) == 0;
  const bool ready = what != Passed::listening || ::listen(socket.get(), 1) == 0;
  return bound && ready ? std::move(socket) : UniqueFd();
}

// Ends the process: as the service manager starts it, with this as its one descriptor.
[[noreturn]] void takeOver(Passed what, bool isWanted) {
  const UniqueFd passed = make(what);
  if (!passed.valid() || (passed.get() != SD_LISTEN_FDS_START && ::dup2(passed.get(), SD_LISTEN_FDS_START) < 0)) {
    std::_Exit(2);
  }
  ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
  ::setenv("LISTEN_FDS", "1", 1);
  const auto taken = activatedSocket();
  if (taken.has_value() != isWanted) std::_Exit(3);
  if (!taken) std::_Exit(::fcntl(SD_LISTEN_FDS_START, F_GETFD) < 0 ? 0 : 4);
  if ((::fcntl(taken->get(), F_GETFL) & O_NONBLOCK) == 0) std::_Exit(5);
  if ((::fcntl(taken->get(), F_GETFD) & FD_CLOEXEC) == 0) std::_Exit(6);
  std::_Exit(::getenv("LISTEN_FDS") ? 7 : 0);
}

TEST(ServiceHostDeathTest, OnlyAListeningStreamSocketIsTakenOverAndNeverBlocks) {
  for (const Passed what :
       {Passed::listening, Passed::notListening, Passed::datagrams, Passed::network, Passed::pipe}) {
    EXPECT_EXIT(takeOver(what, what == Passed::listening), ::testing::ExitedWithCode(0), "") << static_cast<int>(what);
  }
}

}  // namespace
}  // namespace quillmark::os
