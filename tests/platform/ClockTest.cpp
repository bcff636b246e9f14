#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "DispatchBackends.h"
#include "platform/contract/ClockSuite.h"

namespace quillmark::contract {

INSTANTIATE_TEST_SUITE_P(Clock, ClockSuite, testing::ValuesIn(backends()), backendName);

// In a mount namespace of its own, with an /etc that holds nothing but the zone: tells what differs from the expected.
int followZoneInPrivateEtc() {
  const auto mounted = [] {
    return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("etc", "/etc", "tmpfs", 0, nullptr) == 0;
  };
  if (!mounted()) return 77;
  os::LinuxClock clock;
  const Date date = Date::from1970(1'785'585'723);  // 12:02:03 UTC in summer
  int wrong = 0;
  const auto expect = [&](const char* zone, int hour) {
    wrong += clock.timeZone() != zone;
    wrong += clock.local(date).hour != hour;
  };
  expect("UTC", 12);
  std::filesystem::create_symlink("/usr/share/zoneinfo/Europe/Berlin", "/etc/localtime");
  expect("Europe/Berlin", 14);
  std::filesystem::create_symlink("../usr/share/zoneinfo/Asia/Tokyo", "/etc/localtime.new");
  std::filesystem::rename("/etc/localtime.new", "/etc/localtime");
  expect("Asia/Tokyo", 21);
  std::filesystem::remove("/etc/localtime");
  std::filesystem::copy_file("/usr/share/zoneinfo/America/New_York", "/etc/localtime");
  std::ofstream("/etc/timezone") << "America/New_York\n";
  expect("America/New_York", 8);
  return wrong;
}

TEST(LinuxClock, FollowsTheZoneThatTheMachineIsGiven) {
  if (!std::filesystem::exists("/usr/share/zoneinfo/Asia/Tokyo")) GTEST_SKIP() << "no zone files here";
  const pid_t child = ::fork();
  if (child == 0) ::_exit(followZoneInPrivateEtc());
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "needs root";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace quillmark::contract
