#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/UniqueFd.h"
#include "platform/contract/ProcessSuite.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/Processes.h"
#include "platform/sim/SimProcesses.h"
#include "platform/sim/Simulation.h"

namespace quillmark::contract {
namespace {

class LinuxProcessBackend final : public ProcessBackend {
 public:
  Dispatch& dispatch() override { return dispatch_; }
  Processes& processes() override { return processes_; }
  void run(FunctionRef<void()> body) override { body(); }
  ProcessRequest request(TestProgram program) override {
    const auto shell = [](std::string script) { return ProcessRequest{"/bin/sh", {"-c", std::move(script)}}; };
    switch (program) {
      case TestProgram::talksAndFails: return shell("printf out; printf err >&2; exit 3");
      case TestProgram::copiesInput: return {"/bin/cat", {}};
      case TestProgram::runsOn: return {"/bin/sleep", {"1000"}};
      case TestProgram::ignoresTerminate: return shell("trap '' TERM; printf r; exec sleep 1000");
      case TestProgram::leavesAChild: return shell("sleep 1 & exit 0");
      case TestProgram::talksMuch: return shell("head -c 1000000 /dev/zero | tr '\\0' x");
      case TestProgram::doesNotExist: return {"/nowhere/program", {}};
    }
    return {};
  }

 private:
  os::LinuxClock clock_;
  os::LinuxDispatch dispatch_{clock_};
  os::LinuxProcesses processes_{dispatch_};
};

const NamedProcessBackend linuxProcesses{
    "Linux", +[]() -> std::unique_ptr<ProcessBackend> { return std::make_unique<LinuxProcessBackend>(); }};
INSTANTIATE_TEST_SUITE_P(Linux, ProcessSuite, testing::Values(linuxProcesses));

#ifndef __SANITIZE_THREAD__
class SimProcessBackend final : public ProcessBackend {
 public:
  SimProcessBackend() {
    const std::map<TestProgram, sim::SimProgram> programs{
        {TestProgram::talksAndFails, {.output = "out", .errors = "err", .status = 3, .endsAfter = 20ms}},
        {TestProgram::copiesInput, {.echoesInput = true}},
        {TestProgram::runsOn, {.endsByItself = false}},
        {TestProgram::ignoresTerminate, {.output = "r", .endsByItself = false, .ignoresTerminate = true}},
        {TestProgram::leavesAChild, {.keepsPipesOpen = true}},
        {TestProgram::talksMuch, {.output = std::string(1'000'000, 'x')}},
    };
    for (const auto& [program, script] : programs) {
      processes_.script(request(program).path, [script = script](const ProcessRequest&) { return script; });
    }
  }
  Dispatch& dispatch() override { return life_.dispatch(); }
  Processes& processes() override { return processes_; }
  void run(FunctionRef<void()> body) override { simulation_.run(life_, body); }
  ProcessRequest request(TestProgram program) override {
    return {"/programs/" + std::to_string(static_cast<int>(program)), {}};
  }

 private:
  sim::Simulation simulation_;
  sim::Life& life_ = simulation_.startLife("parent");
  sim::SimProcesses processes_{life_.dispatch()};
};

const NamedProcessBackend simulatedProcesses{
    "Simulated", +[]() -> std::unique_ptr<ProcessBackend> { return std::make_unique<SimProcessBackend>(); }};
INSTANTIATE_TEST_SUITE_P(Simulated, ProcessSuite, testing::Values(simulatedProcesses));
#endif

class LinuxProcessesTest : public testing::Test {
 protected:
  std::string outputOf(ProcessRequest request) {
    auto child = processes_.prepare(std::move(request));
    EXPECT_EQ(child->launch(), std::nullopt);
    std::string all;
    std::byte buffer[4096];
    for (;;) {
      const SysResult<std::size_t> count = child->readOutput(buffer);
      if (!count || *count == 0) return all;
      all.append(reinterpret_cast<const char*>(buffer), *count);
    }
  }
  std::string outputOfShell(const std::string& script) { return outputOf({"/bin/sh", {"-c", script}}); }

  os::LinuxClock clock_;
  os::LinuxDispatch dispatch_{clock_};
  os::LinuxProcesses processes_{dispatch_};
};

TEST_F(LinuxProcessesTest, aProgramStartsWithACleanSlate) {
  const UniqueFd leak(::open("/dev/null", O_RDONLY));  // not close-on-exec
  sigset_t blocked;
  sigset_t before;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto ignored = ::signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(outputOf({"/usr/bin/env", {}}),
            "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\nLANG=C\n");
  EXPECT_EQ(outputOfShell("echo /proc/$$/fd/*").find("/fd/" + std::to_string(leak.get())), std::string::npos);
  EXPECT_EQ(outputOfShell("sed -n 's/^SigBlk:\t//p' /proc/self/status"), "0000000000000000\n");
  // Above the standard signals stand those of the C library itself.
  const std::string ignoredSet = outputOfShell("sed -n 's/^SigIgn:\t//p' /proc/self/status");
  EXPECT_EQ(std::stoull(ignoredSet, nullptr, 16) & 0x7FFFFFFF, 0U) << ignoredSet;
  EXPECT_EQ(outputOfShell("pwd"), "/\n");
  EXPECT_EQ(outputOfShell("test \"$(ps -o sid= -p $$ | tr -d ' ')\" = $$ && echo own"), "own\n");
  EXPECT_EQ(outputOf({"/bin/echo", {"a b", "$HOME", "\xF4\x8E\xBF\xBF"}}), "a b $HOME \xFF\n");
  ::signal(SIGPIPE, ignored);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(LinuxProcessesTest, aWordWithANulIsRefused) {
  auto child = processes_.prepare({"/bin/echo", {std::string("cut\0here", 8)}});
  EXPECT_NE(child->launch(), std::nullopt);
}

TEST_F(LinuxProcessesTest, everyChildIsReapedAlsoOneThatWasDropped) {
  for (int i = 0; i < 20; ++i) {
    auto child = processes_.prepare({"/bin/true", {}});
    ASSERT_EQ(child->launch(), std::nullopt);
  }
  const MonotonicTime deadline = clock_.monotonic() + 10s;
  while (::waitid(P_ALL, 0, nullptr, WEXITED | WNOHANG | WNOWAIT) == 0 && clock_.monotonic() < deadline) {
    ::usleep(1000);
  }
  EXPECT_EQ(errno, ECHILD);
}

// Goal:   an input that nobody reads can be given up.
// Method: a writer waits on a full pipe; another thread closes the input.
TEST_F(LinuxProcessesTest, closingTheInputEndsAWriterThatWaits) {
  auto child = processes_.prepare({"/bin/sleep", {"1000"}, true});
  ASSERT_EQ(child->launch(), std::nullopt);
  Semaphore ended(dispatch_);
  int error = 0;
  dispatch_.throwAwayThread("writer", [&] {
    error = child->writeInput(std::string(1'000'000, 'x')).error();
    ended.signal();
  });
  EXPECT_FALSE(ended.waitFor(20ms));
  child->closeInput();
  ASSERT_TRUE(ended.waitFor(10s));
  EXPECT_EQ(error, ECANCELED);
  child->kill();
}

}  // namespace
}  // namespace quillmark::contract
