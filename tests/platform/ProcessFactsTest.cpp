// What the process asks of its machine: itself, its users, its log.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "base/UniqueFd.h"
#include "platform/linux/PlatformLog.h"
#include "platform/linux/ThisProcess.h"
#include "platform/linux/TransportSocket.h"
#include "platform/linux/Users.h"

namespace quillmark::os {
namespace {

using testing::HasSubstr;

TEST(LinuxUsersTest, namesAreThoseOfThePasswordDatabase) {
  LinuxUsers users;
  EXPECT_EQ(users.userName(0), "root");
  EXPECT_EQ(users.userName(4'000'000'001), std::nullopt);
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
  ~LinuxPlatformLogTest() override { std::filesystem::remove_all(directory_); }

  static std::string madeDirectory() {
    std::string path = "/tmp/quillmark-log-XXXXXX";
    if (!::mkdtemp(path.data())) std::abort();
    return path;
  }

  const std::string directory_ = madeDirectory();
  const LogSockets sockets_{.journal = directory_ + "/journal", .syslog = directory_ + "/syslog"};
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
