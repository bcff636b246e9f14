#include "quill/FollowWait.h"

#include <poll.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <csignal>

#include "platform/NameText.h"

namespace quillmark::cli {
namespace {

constexpr std::uint32_t whatMatters = IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr int longMilliseconds = 60'000;
constexpr int shortMilliseconds = 1'000;

sigset_t interrupts() {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&set, signal);
  return set;
}

}  // namespace

bool FollowWait::wait() {
  if (!signals_.valid()) begin();
  if (watchAnew()) return true;
  std::array<pollfd, 3> seen{pollfd{signals_.get(), POLLIN, 0}, pollfd{changes_.get(), POLLIN, 0},
                             pollfd{STDOUT_FILENO, 0, 0}};
  const int ready = ::poll(seen.data(), seen.size(), watches_ ? longMilliseconds : shortMilliseconds);
  if (ready > 0 && (seen[0].revents != 0 || seen[2].revents != 0)) return false;
  if (ready > 0 && seen[1].revents != 0) takeChanges();
  return true;
}

void FollowWait::begin() {
  const sigset_t set = interrupts();
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signals_ = UniqueFd(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  changes_ = UniqueFd(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
}

// True when a watch began: what happened before it went unseen.
bool FollowWait::watchAnew() {
  if (watches_) return false;
  const std::string path = nameBytes(directory_);
  watches_ = ::inotify_add_watch(changes_.get(), path.c_str(), whatMatters) >= 0;
  return watches_;
}

void FollowWait::takeChanges() {
  alignas(inotify_event) std::array<char, 4096> buffer;
  ssize_t count;
  while ((count = ::read(changes_.get(), buffer.data(), buffer.size())) > 0) {
    for (ssize_t at = 0; at < count;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
      if ((event->mask & (IN_IGNORED | IN_MOVE_SELF)) != 0) watches_ = false;
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
}

}  // namespace quillmark::cli
