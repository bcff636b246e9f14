#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <linux/fs.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <map>
#include <stdexcept>

#include "BtrfsMachine.h"
#include "platform/linux/FileWork.h"
#include "platform/linux/Random.h"
#include "platform/linux/ThisProcess.h"
#include "snapshots/SafeFS.h"

namespace quillmark::os {
namespace {

using std::chrono::steady_clock;

class SafeFSOnBtrfs : public ::testing::Test {
 protected:
  void setFlags(const std::string& name, std::uint32_t flags) {
    const UniqueFd file(::open((machine.volume + "/" + name).c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(work.setFlags(file.get(), flags)) << name;
  }
  std::string shell(const std::string& command) { return machine.shell("cd " + machine.volume + "; " + command); }

  BtrfsMachine machine;
  LinuxFileWork work;
  LinuxRandom random;
  LinuxThisProcess process;
  const SafeFS files{work, random, process};
  const SafeFS::Directory volume = files.openDirectory(machine.volume);
};

constexpr std::uint32_t user = 1000;

// An ordinary user who, for as long as this lives, exchanges directories of his for links into another tree, and makes
// anew what is missing, as fast as he can.
class Attacker final {
 public:
  Attacker(const std::string& home, std::vector<std::string> names, std::string target)
      : names_(std::move(names)), target_(std::move(target)), parent_(::getpid()) {
    process_ = ::fork();
    if (process_ != 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent_ || ::setgroups(0, nullptr) != 0 || ::setgid(user) != 0 || ::setuid(user) != 0 ||
        ::chdir(home.c_str()) != 0)
      ::_exit(1);
    for (;;) attack();
  }
  ~Attacker() { stop(); }
  Attacker(const Attacker&) = delete;
  Attacker& operator=(const Attacker&) = delete;
  // Whether he was at it to the end.
  bool stop() {
    if (process_ <= 0) return false;
    ::kill(process_, SIGKILL);
    int status = 0;
    ::waitpid(process_, &status, 0);
    process_ = -1;
    return WIFSIGNALED(status);
  }

 private:
  void attack() const {
    for (const std::string& name : names_) {
      const std::string link = name + ".link";
      (void)!::symlink(target_.c_str(), link.c_str());
      (void)::mkdir(name.c_str(), 0755);
      (void)::mkdir((name + "/inside").c_str(), 0755);
      (void)::close(::open((name + "/file").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
      (void)::renameat2(AT_FDCWD, name.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
    }
  }

  const std::vector<std::string> names_;
  const std::string target_;
  const pid_t parent_;
  pid_t process_ = -1;
};

// How often an operation went through and how often it was refused.
struct Outcomes {
  std::map<std::string, std::uint64_t> done;
  std::map<std::string, std::uint64_t> refused;
  template <class Operation>
  void attempt(const std::string& name, Operation operation) {
    try {
      operation();
      ++done[name];
    } catch (const Error& error) {
      ++refused[name];
    }
  }
};

// Goal:   a user who swaps directories for links while root works below his home can't lead root out of it.
// Method: ten seconds of every operation at four places under attack; then all of the tree that the links lead to is as
//         it was. What makes the test worth its time is that each operation met a link and a directory many times.
TEST_F(SafeFSOnBtrfs, NothingOutsideTheTreeIsTouchedUnderAttack) {
  shell(
      "mkdir -p canary/inside canary/a/b home; echo kept | tee canary/file canary/inside/file canary/a/b/file;"
      "chmod 751 canary/inside; chown -R 0:0 canary; chown 1000:1000 home");
  const auto fingerprint = [&] {
    return shell("find canary -printf '%p %y %i %u %g %m %s %T@ %C@ %n\\n' | sort; cat canary/file canary/*/file");
  };
  ASSERT_EQ(::chmod(machine.root.c_str(), 0755), 0);
  const std::string before = fingerprint();
  const SafeFS::Directory home = files.openChild("home", volume);
  const std::string canary = machine.volume + "/canary";
  const std::string homePath = machine.volume + "/home";
  Attacker attacker(homePath, {"ensured", "written", "created", "removed", "removed/inside"}, canary);

  Outcomes outcomes;
  const auto end = steady_clock::now() + std::chrono::seconds(10);
  while (steady_clock::now() < end) {
    outcomes.attempt("ensureChild", [&] {
      const SafeFS::Directory made = files.ensureChild("ensured", home, 0777, user, user);
      (void)files.ensureChild("inside", made, 0777, user, user);
    });
    outcomes.attempt("writeAtomically", [&] {
      const SafeFS::Directory inside = files.openChild("written", home);
      files.writeAtomically("changed", "file", inside, 0666, user, user);
    });
    outcomes.attempt("openCreating", [&] {
      // Whoever passes a link on the way to the deepest level is stopped by whom he comes to.
      (void)files.openCreating(homePath + "/created/x/y", 0777, [&](const SafeFS::Directory& deepest) {
        if (files.statDirectory(deepest)->uid != user) throw Error("test", 1, "not the user's");
      });
    });
    outcomes.attempt("list", [&] {
      const SafeFS::Directory listed = files.openChild("removed", home);
      for (const std::string& name : files.list(listed)) {
        if (name == "a") throw std::logic_error("the other tree was listed");
      }
    });
    files.removeTree("created", home);
    files.removeTree("removed", home);
    outcomes.attempt("removeTree", [&] {
      if (files.lstatChild("removed", home)) throw Error("test", 1, "there again");
    });
  }
  EXPECT_TRUE(attacker.stop());
  EXPECT_EQ(fingerprint(), before);
  for (const char* name : {"ensureChild", "writeAtomically", "openCreating", "list", "removeTree"}) {
    std::printf("%-16s %8lu done %8lu refused\n", name, outcomes.done[name], outcomes.refused[name]);
    EXPECT_GT(outcomes.done[name], 5U) << name;
  }
  for (const char* name : {"writeAtomically", "openCreating", "list"}) EXPECT_GT(outcomes.refused[name], 5U) << name;
}

TEST_F(SafeFSOnBtrfs, NestedVolumesAndMountsBelowARemovedTreeSurvive) {
  shell(
      "mkdir -p tree/a/b tree/c/d tree/e/f tree/g tree/h/i elsewhere; echo kept > elsewhere/file; touch tree/file;"
      "btrfs -q subvolume create tree/a/b/nested; mkdir tree/a/b/nested/inside; touch tree/a/b/nested/inside/file;"
      "btrfs -q subvolume create tree/a/empty; touch tree/a/gone tree/a/b/gone;"
      "mount -t tmpfs none tree/c/d; touch tree/c/d/file;"
      "mount --bind elsewhere tree/e/f; touch tree/g/point; mount --bind elsewhere/file tree/g/point;"
      "touch tree/h/i/immutable; btrfs -q subvolume create alone");
  setFlags("tree/h/i/immutable", FS_IMMUTABLE_FL);
  files.removeTree("tree", volume);
  files.removeTree("alone", volume);
  EXPECT_EQ(shell("find tree alone elsewhere -mindepth 1 | sort"),
            "elsewhere/file\ntree/a\ntree/a/b\ntree/a/b/nested\ntree/a/b/nested/inside\ntree/a/b/nested/inside/file\n"
            "tree/a/empty\ntree/c\ntree/c/d\ntree/c/d/file\ntree/e\ntree/e/f\ntree/e/f/file\ntree/g\ntree/g/point\n"
            "tree/h\ntree/h/i\ntree/h/i/immutable\n");
  EXPECT_EQ(shell("cat elsewhere/file; ls -d alone"), "kept\nalone\n");
  shell("umount tree/c/d tree/e/f tree/g/point");
  setFlags("tree/h/i/immutable", 0);
}

// Goal:   what hangs on the place stays there; what only root can set is kept, though a change of owner drops it.
TEST_F(SafeFSOnBtrfs, CopiedMetadataIsTheFilesAndNotThePlaces) {
  const auto make = [&](const char* name) {
    WorkDescriptor file(work, *work.createFile(volume.fd(), name, 0600));
    return file;
  };
  const WorkDescriptor source = make("source"), destination = make("destination"), lesser = make("lesser");
  ASSERT_TRUE(work.fchown(source.get(), 12, 34));
  ASSERT_TRUE(work.fchmod(source.get(), 04750));
  for (const auto& [name, value] : std::initializer_list<std::pair<const char*, std::string>>{
           {"security.capability", std::string("\1\0\0\2\0\x20", 6) + std::string(14, '\0')},
           {"trusted.com.harrowfern.quillmark.protected-xids", "1"},
           {"trusted.others", "2"},
           {"user.colour", "3"},
           {"btrfs.compression", "zstd"}}) {
    ASSERT_EQ(work.fsetxattr(source.get(), name, value).error(), 0) << name;
  }
  ASSERT_TRUE(work.setFlags(source.get(), FS_IMMUTABLE_FL | FS_NOATIME_FL));
  files.copyMetadata(source.get(), destination.get());
  files.copyMetadata(source.get(), lesser.get(), SafeFS::Elevation::dropped);

  EXPECT_THAT(*work.flistxattr(destination.get()),
              testing::UnorderedElementsAre("security.capability", "trusted.others", "user.colour"));
  EXPECT_THAT(*work.flistxattr(lesser.get()), testing::UnorderedElementsAre("trusted.others", "user.colour"));
  EXPECT_EQ(work.fstat(destination.get())->mode, 04750U);
  EXPECT_EQ(work.fstat(lesser.get())->mode, 0750U);
  for (const WorkDescriptor* file : {&source, &destination, &lesser}) {
    EXPECT_EQ(work.fstat(file->get())->uid, 12U);
    EXPECT_EQ(*work.flags(file->get()), FS_IMMUTABLE_FL | FS_NOATIME_FL);
    EXPECT_TRUE(work.setFlags(file->get(), 0));
  }
}

}  // namespace
}  // namespace quillmark::os
