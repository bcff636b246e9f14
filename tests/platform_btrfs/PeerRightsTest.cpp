#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "BtrfsMachine.h"
#include "base/FunctionRef.h"
#include "base/HelperLog.h"
#include "platform/linux/ThreadIdentity.h"
#include "snapshots/PeerAuthorization.h"

namespace quillmark::os {
namespace {

class NoLog final : public HelperLog {
  void emit(LogLevel, std::string_view message, CodeLocation) override { ADD_FAILURE() << message; }
};

// Every Debian system knows them; no item in these tests is theirs by chance.
const std::vector<PeerUser> people{{1, {{62000}}}, {5, {{62001, 62002}}}, {65534, std::vector<std::uint32_t>{}}};

// Runs in a process of that user alone; its answers, one for each question.
std::vector<bool> asUser(const PeerUser& user, std::uint32_t gid, std::size_t questions,
                         FunctionRef<bool(std::size_t)> answer) {
  int pipe[2];
  if (::pipe2(pipe, O_CLOEXEC) != 0) return {};
  const pid_t process = ::fork();
  if (process == 0) {
    const std::vector<gid_t> groups(user.groups->begin(), user.groups->end());
    if (::setgroups(groups.size(), groups.data()) != 0 || ::setresgid(gid, gid, gid) != 0 ||
        ::setresuid(user.uid, user.uid, user.uid) != 0) {
      ::_exit(1);
    }
    for (std::size_t i = 0; i < questions; ++i) {
      const char verdict = answer(i) ? 'y' : 'n';
      if (::write(pipe[1], &verdict, 1) != 1) ::_exit(1);
    }
    ::_exit(0);
  }
  ::close(pipe[1]);
  std::vector<bool> verdicts;
  char verdict;
  while (::read(pipe[0], &verdict, 1) == 1) verdicts.push_back(verdict == 'y');
  ::close(pipe[0]);
  ::waitpid(process, nullptr, 0);
  return verdicts;
}

// An access list of one named user and one named group beside the classes (acl(5), linux/posix_acl_xattr.h).
void setAcl(const std::string& path, std::uint16_t forUser, std::uint32_t user, std::uint16_t forGroup,
            std::uint32_t group) {
  struct Entry {
    std::uint16_t tag, perm;
    std::uint32_t id;
  };
  struct {
    std::uint32_t version = 2;
    Entry entries[6];
  } acl{2, {{1, 6, ~0u}, {2, forUser, user}, {4, 0, ~0u}, {8, forGroup, group}, {16, 7, ~0u}, {32, 1, ~0u}}};
  ASSERT_EQ(::setxattr(path.c_str(), "system.posix_acl_access", &acl, sizeof acl, 0), 0) << errnoText(errno);
}

bool canRead(const std::string& path) {
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  return fd.valid();
}

bool canCreateIn(const std::string& directory) {
  const std::string path = directory + "/.made-" + std::to_string(::getpid());
  const UniqueFd fd(::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600));
  if (fd.valid()) ::unlink(path.c_str());
  return fd.valid();
}

// Goal:   the verdict is what a process of that user gets from the kernel.
// Method: random modes, owners, groups and access lists over a tree three levels deep; every path of it, and missing
//         ones below, asked for several users with several groups, against open(2) in a real process of theirs.
TEST(PeerRights, areWhatTheKernelGivesAProcessOfThatUser) {
  if (const std::string missing = whatIsMissing(); !missing.empty()) GTEST_SKIP() << missing;
  BtrfsMachine machine;
  // The way there is open to everybody: a machine's own directories aren't under test.
  for (std::string way = machine.volume; way.size() > 1; way = std::filesystem::path(way).parent_path()) {
    std::filesystem::permissions(way, std::filesystem::perms(0755));
  }
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 chance(seed);
  const auto draw = [&](unsigned most) { return static_cast<std::uint32_t>(chance() % (most + 1)); };

  std::vector<std::string> items;
  std::vector<std::string> folders{machine.volume};
  for (int i = 0; i < 60; ++i) {
    const std::string path = folders[draw(static_cast<unsigned>(folders.size()) - 1)] + "/i" + std::to_string(i);
    if (draw(1)) {
      ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
      folders.push_back(path);
    } else {
      machine.shell("echo x > " + path);
    }
    items.push_back(path);
    ASSERT_EQ(::chown(path.c_str(), people[draw(2)].uid, 62000 + draw(2)), 0);
    ASSERT_EQ(::chmod(path.c_str(), draw(1) ? draw(0777) : 0755), 0);
    if (draw(3) == 0) {
      setAcl(path, static_cast<std::uint16_t>(draw(7)), people[draw(2)].uid, static_cast<std::uint16_t>(draw(7)),
             62000 + draw(2));
    }
  }
  std::vector<std::string> paths = items;
  for (const std::string& item : items) paths.push_back(item + "/gone/deep");

  LinuxThreadIdentity identities;
  NoLog log;
  PeerAuthorization authorization(machine.dispatch, identities, log);
  const auto existing = [](std::string path) {
    struct stat status;
    while (::lstat(path.c_str(), &status) != 0) {
      if (errno != ENOENT) return std::string();
      path = std::filesystem::path(path).parent_path();
    }
    return path;
  };
  std::vector<std::string> found, parents;
  for (const std::string& path : paths) {
    found.push_back(existing(path));
    parents.push_back(existing(std::filesystem::path(path).parent_path()));
  }
  for (const PeerUser& user : people) {
    SCOPED_TRACE("user " + std::to_string(user.uid));
    const std::vector<bool> real = asUser(user, ::getpwuid(user.uid)->pw_gid, paths.size() * 2, [&](std::size_t i) {
      const std::size_t at = i / 2;
      if (i % 2 == 1) return !parents[at].empty() && canCreateIn(parents[at]);
      if (found[at] == paths[at]) return canRead(paths[at]);
      return !found[at].empty() && ::access(found[at].c_str(), R_OK | X_OK) == 0;
    });
    ASSERT_EQ(real.size(), paths.size() * 2);
    std::size_t readable = 0;
    for (std::size_t i = 0; i < paths.size(); ++i) {
      const auto isAllowed = [&](Asked asked) {
        return authorization.check(asked, paths[i], user, std::chrono::seconds(60)) == Verdict::allowed;
      };
      EXPECT_EQ(isAllowed(Asked::mayRead), real[2 * i]) << "reading " << paths[i];
      EXPECT_EQ(isAllowed(Asked::mayCreate), real[2 * i + 1]) << "creating " << paths[i];
      readable += real[2 * i];
    }
    EXPECT_GT(readable, 0u);
    EXPECT_LT(readable, paths.size());
  }
}

TEST(PeerRights, areFencedByTheVolumeHoweverItsPathIsWritten) {
  LinuxThreadIdentity identities;
  EXPECT_EQ(identities.volumeKey("/"), "/");
  for (const char* path : {"/proc/self/stat", "//proc//self", "/./proc/.", "/proc/"}) {
    EXPECT_EQ(identities.volumeKey(path), "/proc") << path;
  }
}

// A thread whose real id were the user's could be ended by that user, and the service with it.
TEST(PeerRights, theUserCannotSignalTheThreadThatAsks) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  LinuxClock clock;
  LinuxDispatch dispatch(clock);
  LinuxThreadIdentity identities;
  Semaphore asking(dispatch), asked(dispatch), ended(dispatch);
  dispatch.throwAwayThread("asks", [&] {
    EXPECT_TRUE(identities.assume({people[0].uid, people[0].uid, {}}));
    const UniqueFd shadow(::open("/etc/shadow", O_PATH | O_CLOEXEC));
    EXPECT_FALSE(identities.permits(shadow.get(), mayRead));
    asking.signal();
    asked.wait();
    ended.signal();
  });
  asking.wait();
  const pid_t service = ::getpid();
  std::vector<pid_t> threads;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    threads.push_back(std::stoi(entry.path().filename()));
  }
  ASSERT_GE(threads.size(), 2u);
  const std::vector<bool> harmless = asUser(people[0], people[0].uid, threads.size() + 1, [&](std::size_t i) {
    const bool ofAll = i == threads.size();
    const long sent = ofAll ? ::kill(service, 0) : ::syscall(SYS_tgkill, service, threads[i], 0);
    return sent == -1 && errno == EPERM;
  });
  asked.signal();
  ended.wait();
  EXPECT_EQ(harmless, std::vector<bool>(threads.size() + 1, true));
}

}  // namespace
}  // namespace quillmark::os
