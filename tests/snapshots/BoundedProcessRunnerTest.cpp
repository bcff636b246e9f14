#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/sim/SimProcesses.h"
#include "platform/sim/Simulation.h"
#include "snapshots/BoundedProcessRunner.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;
using Output = BoundedProcessRunner::Output;

struct Ran {
  Output output;
  std::chrono::nanoseconds took{};
};

Ran run(const sim::SimProgram& program, double timeout, std::size_t limit = 1000,
        const std::optional<std::string>& input = std::nullopt) {
  sim::Simulation simulation({.seed = 5});
  sim::Life& life = simulation.startLife("helper");
  sim::SimProcesses processes(life.dispatch());
  processes.script("/bin/x", [&](const ProcessRequest&) { return program; });
  Ran ran;
  EXPECT_TRUE(simulation.run(life, [&] {
    const MonotonicTime start = life.clock().monotonic();
    ran.output = BoundedProcessRunner(life.dispatch(), processes).run("/bin/x", {}, input, timeout, limit);
    ran.took = life.clock().monotonic() - start;
  }));
  return ran;
}

TEST(BoundedProcessRunner, givesStatusAndBothStreams) {
  const Ran ran = run({.output = "out", .errors = "err", .status = 7, .endsAfter = 3s}, 5);
  EXPECT_EQ(ran.output.status, 7);
  EXPECT_EQ(ran.output.standardOutput, "out");
  EXPECT_EQ(ran.output.standardError, "err");
  EXPECT_FALSE(ran.output.timedOut);
  EXPECT_EQ(ran.took, 3s);
  EXPECT_EQ(run({.echoesInput = true}, 5, 1000, "hello").output.standardOutput, "hello");
}

TEST(BoundedProcessRunner, keepsExactlyTheLimitOfTooMuchOutput) {
  const Ran ran = run({.output = std::string(200'000, 'x')}, 5, 65'537);
  EXPECT_EQ(ran.output.status, BoundedProcessRunner::tooMuchOutput);
  EXPECT_EQ(ran.output.standardOutput, std::string(65'537, 'x'));
  EXPECT_EQ(ran.output.standardError, "Process output exceeded the 65537-byte limit");
  EXPECT_EQ(run({.output = "four"}, 5, 4).output.status, 0);
}

TEST(BoundedProcessRunner, saysWhyAProcessDidNotStartOrCouldNotBeRead) {
  const Ran unstarted = run({.launchError = "no such program"}, 5);
  EXPECT_EQ(unstarted.output.status, BoundedProcessRunner::couldNotStart);
  EXPECT_EQ(unstarted.output.standardError, "no such program");
  const Ran unread = run({.output = "x", .readError = 5}, 5);
  EXPECT_EQ(unread.output.status, BoundedProcessRunner::unreadableOutput);
  EXPECT_EQ(unread.output.standardError, "Could not read process output: Input/output error");
}

TEST(BoundedProcessRunner, endsAnOverdueProcessByEverStrongerMeans) {
  struct Case {
    const char* what;
    sim::SimProgram program;
    double timeout;
    std::chrono::nanoseconds took;
    std::string output;
  };
  const std::vector<Case> cases{
      {"ends when asked", {.output = "so far", .endsByItself = false}, 15, 15s, "so far"},
      {"ignores the request", {.output = "so far", .endsByItself = false, .ignoresTerminate = true}, 15, 17s, "so far"},
      {"is stuck in the kernel",
       {.output = "so far", .endsByItself = false, .ignoresTerminate = true, .ignoresKill = true},
       1.5,
       5500ms,
       "so far"},
      {"has no time at all", {.output = "", .endsAfter = 1s}, 0, 0s, ""},
  };
  for (const Case& overdue : cases) {
    const Ran ran = run(overdue.program, overdue.timeout);
    EXPECT_EQ(ran.output.status, BoundedProcessRunner::deadlinePassed) << overdue.what;
    EXPECT_TRUE(ran.output.timedOut);
    EXPECT_EQ(ran.took, overdue.took) << overdue.what;
    EXPECT_EQ(ran.output.standardOutput, overdue.output) << overdue.what;
    EXPECT_EQ(ran.output.standardError,
              "Process exceeded its " + std::to_string(static_cast<int>(overdue.timeout)) + "-second deadline");
  }
}

TEST(BoundedProcessRunner, isNotHeldByAGrandchildThatKeepsThePipes) {
  const Ran ran = run({.output = "x", .endsByItself = false, .keepsPipesOpen = true}, 1);
  EXPECT_EQ(ran.output.status, BoundedProcessRunner::deadlinePassed);
  EXPECT_LE(ran.took, 3s);
  const Ran inTime = run({.output = "x", .endsAfter = 1s, .keepsPipesOpen = true}, 5);
  EXPECT_EQ(inTime.output.status, BoundedProcessRunner::unreadableOutput);
  EXPECT_EQ(inTime.output.standardError, "Process output pipes did not close after termination");
  EXPECT_EQ(inTime.took, 5s);
}

}  // namespace
}  // namespace quillmark
