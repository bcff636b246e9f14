#include "quill/Pager.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <utility>

#include "base/UniqueFd.h"

namespace quillmark::cli {
namespace {

constexpr const char* shell = "/bin/sh";
constexpr const char* usualPagers[] = {"/usr/bin/less", "/bin/less", "/usr/local/bin/less"};
constexpr const char* usualOptions = "FRX";  // leaves one page at once, shows colours, keeps the screen

bool holdsForeignGroup() {
  gid_t real, effective, saved;
  return ::getresgid(&real, &effective, &saved) != 0 || effective != real || saved != real;
}

std::optional<std::string> programFor(const PagerWish& wish) {
  if (wish.program) return wish.program->empty() || *wish.program == "cat" ? std::nullopt : wish.program;
  for (const char* path : usualPagers) {
    if (::faccessat(AT_FDCWD, path, X_OK, AT_EACCESS) == 0) return path;
  }
  return std::nullopt;
}

// Signals as a program expects them at its start.
class SpawnAttributes final {
 public:
  SpawnAttributes() {
    sigset_t all;
    ::sigfillset(&all);
    ::posix_spawnattr_init(&attributes_);
    ::posix_spawnattr_setsigdefault(&attributes_, &all);
    ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF);
  }
  ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  [[nodiscard]] const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

class InputFrom final {
 public:
  explicit InputFrom(int fd) {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawn_file_actions_adddup2(&actions_, fd, STDIN_FILENO);
  }
  ~InputFrom() { ::posix_spawn_file_actions_destroy(&actions_); }
  InputFrom(const InputFrom&) = delete;
  InputFrom& operator=(const InputFrom&) = delete;
  [[nodiscard]] const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

class Pager final {
 public:
  Pager(pid_t process, UniqueFd terminal) : process_(process), terminal_(std::move(terminal)) {
    // An interrupt is for the pager: it has the terminal.
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGINT, &ignore, &interrupt_);
    ::sigaction(SIGQUIT, &ignore, &quit_);
  }
  ~Pager() {
    ::dup2(terminal_.get(), STDOUT_FILENO);  // the pager reads to the end of its input
    int status = 0;
    while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
    }
    ::sigaction(SIGINT, &interrupt_, nullptr);
    ::sigaction(SIGQUIT, &quit_, nullptr);
  }
  Pager(const Pager&) = delete;
  Pager& operator=(const Pager&) = delete;

 private:
  const pid_t process_;
  const UniqueFd terminal_;
  struct sigaction interrupt_ = {}, quit_ = {};
};

}  // namespace

std::shared_ptr<void> startPager(const PagerWish& wish) {
  std::optional<std::string> program = programFor(wish);
  if (!program || holdsForeignGroup()) return nullptr;
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return nullptr;
  UniqueFd out(ends[0]), in(ends[1]);
  UniqueFd terminal(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
  if (!terminal.valid()) return nullptr;
  ::setenv("LESS", wish.options.value_or(usualOptions).c_str(), 1);
  std::string name = "sh", option = "-c";
  char* const arguments[] = {name.data(), option.data(), program->data(), nullptr};
  const SpawnAttributes attributes;
  const InputFrom input(out.get());
  pid_t process = 0;
  const int failure = ::posix_spawn(&process, shell, input.get(), attributes.get(), arguments, environ);
  ::unsetenv("LESS");
  if (failure != 0) return nullptr;
  auto pager = std::make_shared<Pager>(process, std::move(terminal));
  ::dup2(in.get(), STDOUT_FILENO);
  return pager;
}

}  // namespace quillmark::cli
