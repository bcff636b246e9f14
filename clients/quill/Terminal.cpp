#include "quill/Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "base/Text.h"
#include "quill/Failures.h"

namespace quillmark::cli {
namespace {

constexpr unsigned leastColumns = 20;
constexpr unsigned mostColumns = 1000;

std::string_view environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : std::string_view();
}

std::size_t columnsOf(int fd) {
  winsize size{};
  if (::ioctl(fd, TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_col >= leastColumns && size.ws_col <= mostColumns ? size.ws_col : 0;
}

// Of standard input, cut at a bound; what was typed of it when the input ends.
std::string readLine() {
  constexpr std::size_t longestAnswer = 1024;
  std::string line;
  char c = 0;
  while (line.size() < longestAnswer) {
    const ssize_t count = ::read(STDIN_FILENO, &c, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0 || c == '\n') break;
    line += c;
  }
  return line;
}

// 0, or the errno by which the rest couldn't be written.
int writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    if (count >= 0) {
      text.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      pollfd wait{fd, POLLOUT, 0};
      ::poll(&wait, 1, -1);
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

void onInterrupt(void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(signal, &action, nullptr);
}

}  // namespace

void requireStandardDescriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (::fcntl(fd, F_GETFD) >= 0) continue;
    if (::open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY) != fd) ::_exit(exitFailed);
  }
}

TerminalFacts terminalFacts() {
  const std::string_view type = environment("TERM");
  TerminalFacts facts;
  facts.inputIsTerminal = ::isatty(STDIN_FILENO) == 1;
  facts.outputIsTerminal = ::isatty(STDOUT_FILENO) == 1;
  facts.errorsIsTerminal = ::isatty(STDERR_FILENO) == 1;
  facts.obeysEscapes = !type.empty() && type != "dumb";
  facts.wantsColor = facts.obeysEscapes && environment("NO_COLOR").empty();
  if (facts.outputIsTerminal) facts.columns = columnsOf(STDOUT_FILENO);
  return facts;
}

void DescriptorSink::write(Stream stream, std::string_view text) {
  if (stream == Stream::errors) {
    writeAll(STDERR_FILENO, text);
    return;
  }
  if (readerGone_) return;
  const int error = writeAll(STDOUT_FILENO, text);
  if (error == 0) return;
  readerGone_ = true;
  if (error != EPIPE)
    throw clientError(ClientFault::outputFailed, "The output could not be written: " + errnoText(error));
}

std::string standardInput() {
  constexpr std::size_t most = std::size_t{4} << 20;
  std::string all;
  char buffer[4096];
  ssize_t count;
  while ((count = ::read(STDIN_FILENO, buffer, sizeof buffer)) != 0) {
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw wrongUse("Standard input can't be read: " + errnoText(errno));
    all.append(buffer, static_cast<std::size_t>(count));
    if (all.size() > most) throw wrongUse("Standard input holds more than settings can be.");
  }
  return all;
}

void endAtInterrupt() {
  onInterrupt([](int) { ::_exit(exitDone); });
}

void leaveIndexingAtInterrupt() {
  onInterrupt([](int) {
    // A line that was being drawn ends where it is.
    constexpr std::string_view words = "\nquill: The helper goes on indexing. See: quill index status\n";
    (void)!::write(STDERR_FILENO, words.data(), words.size());
    ::_exit(exitInterrupted);
  });
}

std::function<bool(const std::string&)> personToAsk(TextSink& sink, const TerminalFacts& facts) {
  if (!facts.inputIsTerminal || (!facts.errorsIsTerminal && !facts.outputIsTerminal)) return {};
  const auto stream = facts.errorsIsTerminal ? TextSink::Stream::errors : TextSink::Stream::output;
  return [&sink, stream](const std::string& question) {
    sink.write(stream, question);
    const std::string answer = asciiLower(readLine());
    return answer == "y" || answer == "yes";
  };
}

}  // namespace quillmark::cli
