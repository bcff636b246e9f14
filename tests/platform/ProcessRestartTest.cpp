// A whole simulated process on the bundled facilities: it starts, is killed inside a file call, and starts again.
#include <gmock/gmock.h>

#include "base/Error.h"
#include "platform/sim/SimPlatform.h"

namespace quillmark::sim {
namespace {

#ifndef __SANITIZE_THREAD__
using namespace std::chrono_literals;

void append(Posix& posix, const std::string& path, const std::string& line) {
  const SysResult<int> fd = posix.open(path, {.write = true, .append = true, .create = true});
  if (!fd) throw posixError("open", path, fd.error());
  const OpenFile file(posix, *fd);
  static_cast<void>(posix.write(file.get(), line));
  static_cast<void>(posix.fsync(file.get()));
}

TEST(SimPlatformTest, aLifeKilledInsideAFileCallIsFollowedByOneThatFindsItsFiles) {
  Simulation simulation;
  SimVolumes volumes;
  Life& first = simulation.startLife("first");
  SimPlatform platform(first, volumes);
  const Platform facilities = platform.platform();
  const std::string log = facilities.paths.helperLog;
  platform.files().setPlan({.fault = Fault::kill, .atCall = 2, .only = PosixCall::fsync});
  std::vector<std::string> events;
  const bool ended = simulation.run(first, [&] {
    facilities.listener.resume([](const auto&) { return true; });
    append(facilities.posix, log, "one\n");
    append(facilities.posix, log, "two\n");
    events.push_back("never");
  });
  EXPECT_FALSE(ended);
  EXPECT_FALSE(first.isAlive());
  EXPECT_TRUE(events.empty());
  EXPECT_EQ(facilities.posix.lstat(log).error(), EIO);

  Life& second = simulation.startLife("second");
  simulation.runFor(1h);
  SimPlatform next(second, volumes, {.files = platform.files().copyForSuccessor(&second.clock())});
  Platform again = next.platform();
  EXPECT_NE(again.process.pid(), facilities.process.pid());
  simulation.run(second, [&] {
    const SysResult<FileStatus> facts = again.posix.lstat(again.paths.helperLog);
    ASSERT_TRUE(facts.ok());
    EXPECT_EQ(facts->size, 8);
    EXPECT_GE(again.clock.now() - facts->modified, Seconds(3600));
    EXPECT_TRUE(again.posix.lstat(again.paths.userMountRoot).ok());
  });
}
#endif

}  // namespace
}  // namespace quillmark::sim
