// quill: the command line client of the snapshot service.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "platform/linux/Clock.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/Posix.h"
#include "platform/linux/Random.h"
#include "platform/linux/ServiceHost.h"
#include "platform/linux/TransportClient.h"
#include "quill/EarlyConnection.h"
#include "quill/Failures.h"
#include "quill/FollowWait.h"
#include "quill/LinuxLocalVolumes.h"
#include "quill/ProgressSign.h"
#include "quill/Quill.h"
#include "quill/Terminal.h"

namespace quillmark::cli {
namespace {

// The machine's zone is the clock's own; here the person's counts.
class PersonsZone {
 public:
  ~PersonsZone() {
    if (zone_) ::setenv("TZ", zone_->c_str(), 1);
  }

 private:
  const std::optional<std::string> zone_ = [] {
    const char* value = std::getenv("TZ");
    return value ? std::optional<std::string>(value) : std::nullopt;
  }();
};

std::unique_ptr<os::LinuxClock> personsClock() {
  const PersonsZone kept;
  return std::make_unique<os::LinuxClock>();
}

int start(const std::vector<std::string>& arguments, EarlyConnection early, HostPaths paths, const PagerWish& pager) {
  paths.diskutil = os::programDirectory() + "/diskutil";
  const auto clock = personsClock();
  os::LinuxDispatch dispatch(*clock);
  LinuxLocalVolumes volumes(dispatch, paths);
  DescriptorSink sink;
  const TerminalFacts terminal = terminalFacts();
  const auto connect = [&](const std::optional<std::string>& socket) -> std::unique_ptr<ClientChannel> {
    if (!socket && early.failure) throw Error(*early.failure);
    if (!socket && early.channel) return std::move(early.channel);
    return os::LinuxClientChannel::connect(socket.value_or(paths.socket));
  };
  const auto busy = [&](const std::string& text) -> std::shared_ptr<void> {
    if (!terminal.errorsIsTerminal || !terminal.obeysEscapes) return nullptr;
    return std::make_shared<ProgressSign>(dispatch, sink, text);
  };
  os::LinuxPosix posix;
  os::LinuxRandom random;
  FollowWait follow(paths.sharedDirectory);
  const auto waitForMore = [&] {
    early.channel.reset();  // who follows the log for days takes nobody's place at the helper
    return follow.wait();
  };
  World world{.sink = sink,
              .terminal = terminal,
              .clock = *clock,
              .volumes = volumes,
              .paths = paths,
              .connect = connect,
              .busy = busy,
              .posix = posix,
              .random = random,
              .confirm = personToAsk(sink, terminal),
              .waitForMore = waitForMore,
              .input = standardInput,
              .endAtInterrupt = endAtInterrupt,
              .leaveIndexingAtInterrupt = leaveIndexingAtInterrupt,
              .admission = admissionHere,
              .page = [&] { return terminal.obeysEscapes ? startPager(pager) : nullptr; }};
  return runQuill(arguments, world);
}

}  // namespace
}  // namespace quillmark::cli

int main(int count, char** words) {
  using namespace quillmark;
  cli::requireStandardDescriptors();
  const cli::PagerWish pager = cli::keepHarmlessEnvironment();
  HostPaths paths;
  cli::EarlyConnection early = cli::connectAndDropGroup(paths.socket);
  ::signal(SIGPIPE, SIG_IGN);
  try {
    return cli::start({words + std::min(count, 1), words + count}, std::move(early), std::move(paths), pager);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "quill: %s\n", failure.what());
    return cli::exitFailed;
  }
}
