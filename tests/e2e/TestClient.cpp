// quillmark-test-client: a genuine client that the tests drive. Connects to the socket, then carries bytes between it and
// standard input, which has to be a socket: its first four bytes there are the errno of the connect, 0 for none.
//   quillmark-test-client SOCKET [PROGRAM ARGUMENT...]   on SIGUSR1 becomes PROGRAM, which finds the connection open as 3
//   quillmark-test-client --drop-group SOCKET ...        gives up its group once it is connected
//   quillmark-test-client --wait SOCKET ...              connects when a byte comes on standard input
//   quillmark-test-client --carry                        goes on with the connection that is open as 3
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int driver = 0;
constexpr int connection = 3;

volatile std::sig_atomic_t asked = 0;

int connectTo(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return errno;
  if (fd != connection) {
    ::dup2(fd, connection);
    ::close(fd);
  }
  return 0;
}

// One direction: what was read and isn't written yet.
struct Lane {
  int from, to;
  std::string waiting;
  bool isOpen = true;

  [[nodiscard]] bool wantsToRead() const { return isOpen && waiting.size() < 65536; }
  void read() {
    char buffer[65536];
    const ssize_t count = ::recv(from, buffer, sizeof buffer, MSG_DONTWAIT);
    if (count > 0) waiting.append(buffer, static_cast<std::size_t>(count));
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) isOpen = false;
  }
  // False when nobody takes it any more.
  [[nodiscard]] bool write() {
    while (!waiting.empty()) {
      const ssize_t count = ::send(to, waiting.data(), waiting.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (count < 0) return errno == EAGAIN || errno == EINTR;
      waiting.erase(0, static_cast<std::size_t>(count));
    }
    return true;
  }
};

void becomeAnother(char** words) {
  if (!words[0]) return;
  ::execv(words[0], words);
  ::_exit(126);
}

void carry(char** onSignal) {
  Lane asks{driver, connection, {}}, answers{connection, driver, {}};
  while (asks.isOpen) {
    if (asked != 0) {
      asked = 0;
      becomeAnother(onSignal);
    }
    const auto events = [](const Lane& in, const Lane& out) {
      return static_cast<short>((in.wantsToRead() ? POLLIN : 0) | (out.waiting.empty() ? 0 : POLLOUT));
    };
    pollfd files[] = {{driver, events(asks, answers), 0}, {answers.isOpen ? connection : -1, events(answers, asks), 0}};
    if (::poll(files, 2, -1) < 0) continue;
    if ((files[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) asks.read();
    if ((files[1].revents & (POLLIN | POLLHUP | POLLERR)) != 0) answers.read();
    if (!asks.write()) answers.read();
    if (!answers.isOpen) ::shutdown(driver, SHUT_RD);  // who goes on asking gets EPIPE
    if (!answers.write() || (!answers.isOpen && answers.waiting.empty())) return;
  }
}

}  // namespace

int main(int count, char** words) {
  ::signal(SIGUSR1, [](int) { asked = 1; });
  ::signal(SIGPIPE, SIG_IGN);
  int next = 1;
  const bool dropsGroup = next < count && std::strcmp(words[next], "--drop-group") == 0;
  const bool waits = next < count && std::strcmp(words[next], "--wait") == 0;
  if (dropsGroup || waits) ++next;
  char go;
  if (waits && ::read(driver, &go, 1) != 1) return 2;
  if (next >= count) return 2;
  if (std::strcmp(words[next], "--carry") != 0) {
    const int error = connectTo(words[next]);
    if (dropsGroup && ::setresgid(::getgid(), ::getgid(), ::getgid()) != 0) return 2;
    if (::write(driver, &error, sizeof error) != sizeof error || error != 0) return 1;
  }
  carry(words + next + 1);
  return 0;
}
