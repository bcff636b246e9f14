#include "platform/linux/ProcessWatcher.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace quillmark::os {
namespace {

constexpr std::uint64_t wakeKey = 0;

bool watch(int epoll, int fd, std::uint64_t key) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = key;
  return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

void WatchedProcess::signal(int number) const {
  static_cast<void>(::syscall(SYS_pidfd_send_signal, pidfd_.get(), number, nullptr, 0));
}

std::optional<int> WatchedProcess::exitStatus() {
  MutexLock lock(mutex_);
  return exitStatus_;
}

void WatchedProcess::forgetCallback() {
  MutexLock lock(mutex_);
  onExit_ = nullptr;
}

Work WatchedProcess::reap() {
  siginfo_t info{};
  while (::waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(pidfd_.get()), &info, WEXITED) < 0 &&
         errno == EINTR) {
  }
  MutexLock lock(mutex_);
  exitStatus_ = info.si_status;
  return std::move(onExit_);
}

ProcessWatcher::ProcessWatcher(Dispatch& dispatch)
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      callbacks_(dispatch.global(QualityOfService::userInitiated)), dispatch_(dispatch), mutex_(dispatch) {}

int ProcessWatcher::prepare() {
  if (!epoll_.valid() || !wake_.valid()) return EMFILE;
  MutexLock lock(mutex_);
  if (stopped_) return ECANCELED;
  if (running_) return 0;
  if (!watch(epoll_.get(), wake_.get(), wakeKey)) return errno;
  running_ = true;
  dispatch_.throwAwayThread("com.harrowfern.quillmark.helper.processes", [self = shared_from_this()] {
    while (self->step()) {
    }
  });
  return 0;
}

void ProcessWatcher::add(std::shared_ptr<WatchedProcess> process) {
  MutexLock lock(mutex_);
  const std::uint64_t key = nextKey_++;
  const int pidfd = process->pidfd();
  processes_.emplace(key, std::move(process));
  // Only memory can be short here, and then nothing else would go on either.
  if (!watch(epoll_.get(), pidfd, key)) std::abort();
}

void ProcessWatcher::stop() {
  {
    MutexLock lock(mutex_);
    stopped_ = true;
  }
  const std::uint64_t one = 1;
  static_cast<void>(::write(wake_.get(), &one, sizeof one) == sizeof one);
}

bool ProcessWatcher::step() {
  std::array<epoll_event, 16> events;
  const int count = ::epoll_wait(epoll_.get(), events.data(), events.size(), -1);
  for (int i = 0; i < count; ++i) {
    if (events[i].data.u64 != wakeKey) ended(events[i].data.u64);
  }
  if (!finished()) return true;
  // A stop is a lasting event: only the ends of processes count from here on.
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, wake_.get(), nullptr);
  MutexLock lock(mutex_);
  return !processes_.empty();
}

bool ProcessWatcher::finished() {
  MutexLock lock(mutex_);
  return stopped_;
}

void ProcessWatcher::ended(std::uint64_t key) {
  std::shared_ptr<WatchedProcess> process;
  {
    MutexLock lock(mutex_);
    auto found = processes_.extract(key);
    if (found.empty()) return;
    process = std::move(found.mapped());
  }
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, process->pidfd(), nullptr);
  if (Work callback = process->reap()) callbacks_->async(std::move(callback));
}

}  // namespace quillmark::os
