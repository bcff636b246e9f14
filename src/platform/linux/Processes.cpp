#include "platform/linux/Processes.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <vector>

#include "base/Error.h"
#include "platform/NameText.h"
#include "platform/linux/ProcessWatcher.h"

namespace quillmark::os {
namespace {

// Raised once, seen by everybody who waits for it.
class Signal final {
 public:
  Signal() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  [[nodiscard]] int get() const { return event_.get(); }
  [[nodiscard]] bool valid() const { return event_.valid(); }
  void raise() const {
    const std::uint64_t one = 1;
    static_cast<void>(::write(event_.get(), &one, sizeof one) == sizeof one);
  }

 private:
  const UniqueFd event_;
};

struct Pipe {
  UniqueFd readEnd;
  UniqueFd writeEnd;

  [[nodiscard]] bool make() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) < 0) return false;
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
    return true;
  }
};

// Our end of a pipe, closed by one thread while another waits on it: the descriptor goes when the last user lets go.
class PipeEnd final {
 public:
  explicit PipeEnd(Threads& threads) : mutex_(threads) {}

  void open(UniqueFd fd) EXCLUDES(mutex_) {
    ::fcntl(fd.get(), F_SETFL, O_NONBLOCK);
    MutexLock lock(mutex_);
    fd_ = std::make_shared<UniqueFd>(std::move(fd));
  }
  void close() EXCLUDES(mutex_) {
    std::shared_ptr<UniqueFd> dropped;
    {
      MutexLock lock(mutex_);
      dropped.swap(fd_);
    }
    closed_.raise();
  }
  [[nodiscard]] std::shared_ptr<UniqueFd> use() EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return fd_;
  }
  [[nodiscard]] bool valid() const { return closed_.valid(); }
  // False once the end is closed; else the descriptor has one of the events, or an error to tell.
  [[nodiscard]] bool waitFor(int fd, short events) const {
    pollfd waits[2] = {{fd, events, 0}, {closed_.get(), POLLIN, 0}};
    while (::poll(waits, 2, -1) < 0 && errno == EINTR) {
    }
    return waits[1].revents == 0;
  }

 private:
  const Signal closed_;
  Mutex mutex_;
  std::shared_ptr<UniqueFd> fd_ GUARDED_BY(mutex_);
};

// While it lives, a write to a closed pipe gives EPIPE on this thread and nothing more.
class WithoutPipeSignal final {
 public:
  WithoutPipeSignal() {
    sigset_t pending;
    ::sigpending(&pending);
    alreadyPending_ = ::sigismember(&pending, SIGPIPE) == 1;
    ::pthread_sigmask(SIG_BLOCK, &pipeOnly(), &before_);
  }
  ~WithoutPipeSignal() {
    const timespec atOnce{};
    if (!alreadyPending_) {
      while (::sigtimedwait(&pipeOnly(), nullptr, &atOnce) < 0 && errno == EINTR) {
      }
    }
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  WithoutPipeSignal(const WithoutPipeSignal&) = delete;
  WithoutPipeSignal& operator=(const WithoutPipeSignal&) = delete;

 private:
  const sigset_t& pipeOnly() {
    ::sigemptyset(&pipe_);
    ::sigaddset(&pipe_, SIGPIPE);
    return pipe_;
  }
  sigset_t pipe_;
  sigset_t before_;
  bool alreadyPending_;
};

// What posix_spawn is told, freed with it.
class SpawnPlan final {
 public:
  SpawnPlan() {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawnattr_init(&attributes_);
    sigset_t set;
    ::sigemptyset(&set);
    ::posix_spawnattr_setsigmask(&attributes_, &set);
    ::sigfillset(&set);
    ::posix_spawnattr_setsigdefault(&attributes_, &set);
    ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    ::posix_spawn_file_actions_addchdir_np(&actions_, "/");
  }
  ~SpawnPlan() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  void connect(int fd, int as) { ::posix_spawn_file_actions_adddup2(&actions_, fd, as); }
  void emptyInput() { ::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0); }

  // 0, or the errno of what failed, exec included.
  [[nodiscard]] int spawn(pid_t& pid, const ProcessRequest& request) {
    ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    std::vector<std::string> words{nameBytes(request.path)};
    for (const std::string& argument : request.arguments) words.push_back(nameBytes(argument));
    // A NUL inside would start the program with other words than asked.
    for (const std::string& word : words) {
      if (word.find('\0') != std::string::npos) return EINVAL;
    }
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    char path[] = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    char language[] = "LANG=C";
    char* environment[] = {path, language, nullptr};
    return ::posix_spawn(&pid, words.front().c_str(), &actions_, &attributes_, pointers.data(), environment);
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

class LinuxChildProcess final : public ChildProcess {
 public:
  LinuxChildProcess(Dispatch& dispatch, std::shared_ptr<ProcessWatcher> watcher, ProcessRequest request)
      : dispatch_(dispatch), watcher_(std::move(watcher)), request_(std::move(request)), output_(dispatch),
        errors_(dispatch), input_(dispatch) {
    preparation_ = makePipes();
  }
  ~LinuxChildProcess() override {
    if (process_) process_->forgetCallback();
  }

  void onExit(UniqueFunction<void()> callback) override { onExit_ = std::move(callback); }

  std::optional<std::string> launch() override {
    const int error = preparation_ != 0 ? preparation_ : start();
    outputPipe_.writeEnd.reset();
    errorPipe_.writeEnd.reset();
    inputPipe_.readEnd.reset();
    if (error == 0) return std::nullopt;
    return posixError("launch", request_.path, error).description();
  }

  SysResult<std::size_t> readOutput(std::span<std::byte> into) override { return read(output_, into); }
  SysResult<std::size_t> readErrors(std::span<std::byte> into) override { return read(errors_, into); }

  SysStatus writeInput(std::string_view bytes) override {
    const WithoutPipeSignal quiet;
    while (!bytes.empty()) {
      const std::shared_ptr<UniqueFd> fd = input_.use();
      if (!fd || !input_.waitFor(fd->get(), POLLOUT)) return Errno{ECANCELED};
      const ssize_t count = ::write(fd->get(), bytes.data(), bytes.size());
      if (count >= 0) {
        bytes.remove_prefix(static_cast<std::size_t>(count));
      } else if (errno != EAGAIN && errno != EINTR) {
        return Errno{errno};
      }
    }
    return {};
  }

  void closeInput() override { input_.close(); }
  void closeOutputs() override {
    output_.close();
    errors_.close();
  }
  void terminate() override {
    if (process_) process_->signal(SIGTERM);
  }
  void kill() override {
    if (process_) process_->signal(SIGKILL);
  }
  int exitStatus() override {
    const std::optional<int> status = process_ ? process_->exitStatus() : std::nullopt;
    if (!status) std::abort();
    return *status;
  }

 private:
  // 0 or the errno; the read ends work from here on, so that readers can wait before the launch.
  int makePipes() {
    if (!output_.valid() || !errors_.valid() || !input_.valid()) return EMFILE;
    if (!outputPipe_.make() || !errorPipe_.make() || (request_.wantsInput && !inputPipe_.make())) {
      const int error = errno;
      outputPipe_.writeEnd.reset();
      errorPipe_.writeEnd.reset();
      return error;
    }
    output_.open(std::move(outputPipe_.readEnd));
    errors_.open(std::move(errorPipe_.readEnd));
    if (request_.wantsInput) input_.open(std::move(inputPipe_.writeEnd));
    return 0;
  }

  int start() {
    if (const int error = watcher_->prepare()) return error;
    SpawnPlan plan;
    if (request_.wantsInput) {
      plan.connect(inputPipe_.readEnd.get(), STDIN_FILENO);
    } else {
      plan.emptyInput();
    }
    plan.connect(outputPipe_.writeEnd.get(), STDOUT_FILENO);
    plan.connect(errorPipe_.writeEnd.get(), STDERR_FILENO);
    pid_t pid = 0;
    if (const int error = plan.spawn(pid, request_)) return error;
    // The number can't be another's yet: it stays taken until the process is reaped, and only the watcher reaps.
    UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!pidfd.valid()) return abandon(pid, errno);
    process_ = std::make_shared<WatchedProcess>(dispatch_, std::move(pidfd), std::move(onExit_));
    watcher_->add(process_);
    return 0;
  }

  static int abandon(pid_t pid, int error) {
    ::kill(pid, SIGKILL);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    return error;
  }

  SysResult<std::size_t> read(PipeEnd& end, std::span<std::byte> into) const {
    for (;;) {
      const std::shared_ptr<UniqueFd> fd = end.use();
      if (!fd && preparation_ != 0) return std::size_t{0};
      if (!fd || !end.waitFor(fd->get(), POLLIN)) return Errno{EBADF};
      const ssize_t count = ::read(fd->get(), into.data(), into.size());
      if (count >= 0) return static_cast<std::size_t>(count);
      if (errno != EAGAIN && errno != EINTR) return Errno{errno};
    }
  }

  Dispatch& dispatch_;
  const std::shared_ptr<ProcessWatcher> watcher_;
  const ProcessRequest request_;
  int preparation_ = 0;
  Pipe outputPipe_, errorPipe_, inputPipe_;
  PipeEnd output_, errors_, input_;
  UniqueFunction<void()> onExit_;
  std::shared_ptr<WatchedProcess> process_;
};

}  // namespace

LinuxProcesses::LinuxProcesses(Dispatch& dispatch)
    : dispatch_(dispatch), watcher_(std::make_shared<ProcessWatcher>(dispatch)) {}

LinuxProcesses::~LinuxProcesses() { watcher_->stop(); }

std::unique_ptr<ChildProcess> LinuxProcesses::prepare(ProcessRequest request) {
  return std::make_unique<LinuxChildProcess>(dispatch_, watcher_, std::move(request));
}

}  // namespace quillmark::os
