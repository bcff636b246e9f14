// What the process asks of its machine: itself, its users, its log.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <tuple>
#include <vector>

#include "TemporaryDirectory.h"
#include "base/UniqueFd.h"
#include "platform/linux/PlatformLog.h"
#include "platform/linux/ThisProcess.h"
#include "platform/linux/TransportSocket.h"
#include "platform/linux/Users.h"

namespace quillmark::os {
namespace {

using testing::HasSubstr;

TEST(LinuxUsersTest, areThoseOfThePasswordDatabaseWithTheirHomes) {
  LinuxUsers users;
  EXPECT_EQ(users.userName(0), "root");
  EXPECT_EQ(users.userName(4'000'000'001), std::nullopt);
  const auto listed = users.listedUsers();
  const auto root = std::find_if(listed.begin(), listed.end(), [](const UserRecord& user) { return user.uid == 0; });
  ASSERT_NE(root, listed.end());
  EXPECT_EQ(root->name, "root");
  const std::string link = testing::TempDir() + "/quillmark-home-" + std::to_string(::getpid());
  std::filesystem::create_directory_symlink("/etc", link);
  EXPECT_EQ(users.directoriesAt({link, "/etc/passwd", "/no/such/place"}),
            (std::vector<std::optional<std::string>>{"/etc", std::nullopt, std::nullopt}));
  std::filesystem::remove(link);
}

TEST(LinuxUsersTest, theBoundsOfPeopleStandInLoginDefs) {
  const std::tuple<const char*, std::uint32_t, std::uint32_t> cases[] = {
      {"", 1000, 60000},
      {"# UID_MIN 1\nUID_MIN\t\t  500\nSYS_UID_MAX 499\nUID_MAX 0x10000 # comment", 500, 65536},
      {"UID_MIN 01750\nUID_MAX many\nUID_MINE 3", 1000, 60000}};
  for (const auto& [text, least, most] : cases) {
    EXPECT_EQ(personIDsIn(text).least, least) << text;
    EXPECT_EQ(personIDsIn(text).most, most) << text;
  }
}

TEST(LinuxThisProcessTest, limitsAreReadAndSet) {
  LinuxThisProcess process;
  EXPECT_EQ(process.pid(), ::getpid());
  const SysResult<DescriptorLimit> before = process.descriptorLimit();
  ASSERT_TRUE(before.ok());
  EXPECT_TRUE(process.setDescriptorLimit({.soft = before->soft - 1, .hard = before->hard}).ok());
  EXPECT_EQ(process.descriptorLimit()->soft, before->soft - 1);
  EXPECT_EQ(process.setDescriptorLimit({.soft = before->hard, .hard = before->soft - 1}).error(), EINVAL);
  EXPECT_TRUE(process.setDescriptorLimit(*before).ok());
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they have allocators of their own
TEST(LinuxThisProcessTest, whatWasFreedGoesBackToTheMachine) {
  const auto resident = [] {
    std::ifstream statm("/proc/self/statm");
    std::size_t pages = 0;
    statm >> pages >> pages;
    return pages * static_cast<std::size_t>(::getpagesize());
  };
  constexpr std::size_t size = 64u << 20;
  std::vector<std::unique_ptr<char[]>> blocks;
  for (std::size_t i = 0; i < size >> 10; ++i) {
    blocks.push_back(std::make_unique<char[]>(1000));
    blocks.back()[0] = 1;
  }
  const auto holdsTheHeapsEnd = std::make_unique<char[]>(1000);
  blocks.clear();
  const std::size_t before = resident();
  LinuxThisProcess().giveBackFreeMemory();
  EXPECT_LT(resident() + size / 2, before);
}
#endif

// A daemon's socket that nobody reads from unless the test does.
class Daemon final {
 public:
  explicit Daemon(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const auto address = socketAddress(path);
    if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) < 0) std::abort();
  }
  [[nodiscard]] std::string received() {
    std::string datagram(200'000, '\0');
    const ssize_t count = ::recv(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT);
    datagram.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return datagram;
  }

 private:
  const UniqueFd socket_;
};

class LinuxPlatformLogTest : public testing::Test {
 protected:
  const TemporaryDirectory directory_;
  const LogSockets sockets_{.journal = directory_.path() + "/journal", .syslog = directory_.path() + "/syslog"};
  LinuxPlatformLog log_{sockets_};
};

TEST_F(LinuxPlatformLogTest, theJournalGetsFieldsAndWholeMessages) {
  Daemon journal(sockets_.journal);
  log_.log(PlatformLogType::error, "com.harrowfern.quillmark.helper", "main", "two\nlines");
  const std::string datagram = journal.received();
  const auto field = [](const std::string& name, const std::string& value) {
    return name + "\n" + static_cast<char>(value.size()) + std::string(7, '\0') + value + "\n";
  };
  EXPECT_THAT(datagram, HasSubstr(field("MESSAGE", "two\nlines")));
  EXPECT_THAT(datagram, HasSubstr(field("SUBSYSTEM", "com.harrowfern.quillmark.helper")));
  EXPECT_THAT(datagram, HasSubstr(field("CATEGORY", "main")));
  EXPECT_THAT(datagram, HasSubstr(field("PRIORITY", "3")));
}

TEST_F(LinuxPlatformLogTest, withoutAJournalSyslogGetsTheMessage) {
  log_.log(PlatformLogType::info, "s", "c", "to nobody");
  Daemon syslog(sockets_.syslog);
  log_.log(PlatformLogType::normal, "s", "c", "hello");
  EXPECT_THAT(syslog.received(), testing::MatchesRegex("<29>quillmark-helper\\[[0-9]+\\]: \\[s:c\\] hello"));
}

TEST_F(LinuxPlatformLogTest, aDaemonThatDoesNotReadHoldsNobodyUp) {
  Daemon journal(sockets_.journal);
  for (int i = 0; i < 2000; ++i) log_.log(PlatformLogType::info, "s", "c", std::string(100'000, 'x'));
  EXPECT_THAT(journal.received(), HasSubstr("MESSAGE"));
}

}  // namespace
}  // namespace quillmark::os
