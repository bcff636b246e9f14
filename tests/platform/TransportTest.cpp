#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "TemporaryDirectory.h"
#include "platform/contract/TransportSuite.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/Transport.h"
#include "platform/linux/TransportClient.h"
#include "platform/linux/TransportSocket.h"
#include "platform/sim/SimTransport.h"

namespace quillmark::contract {
namespace {

struct Place final {
  const TemporaryDirectory directory;
  const std::string socket = directory.path() + "/run/helper.sock";
};

class LinuxPeer final : public TestPeer {
 public:
  explicit LinuxPeer(const std::string& path) : channel_(os::LinuxClientChannel::connect(path, ::geteuid())) {}
  ClientChannel& channel() override { return *channel_; }
  void close() override { channel_.reset(); }
  void stopReading() override {}  // it reads only to receive

 private:
  std::unique_ptr<os::LinuxClientChannel> channel_;
};

class LinuxTransportBackend final : public TransportBackend {
 public:
  Dispatch& dispatch() override { return dispatch_; }
  void run(FunctionRef<void()> body) override {
    body();
    listener_.reset();
  }
  TransportListener& listener() override {
    listener_ = std::make_unique<os::LinuxTransport>(
        dispatch_, os::LinuxTransportOptions{.path = place_.socket, .limits = limits});
    return *listener_;
  }
  std::unique_ptr<TestPeer> connect() override { return std::make_unique<LinuxPeer>(place_.socket); }

 private:
  const Place place_{};
  os::LinuxClock clock_;
  os::LinuxDispatch dispatch_{clock_};
  std::unique_ptr<os::LinuxTransport> listener_;
};

const NamedTransportBackend linuxTransport{
    "Linux", +[]() -> std::unique_ptr<TransportBackend> { return std::make_unique<LinuxTransportBackend>(); }};
INSTANTIATE_TEST_SUITE_P(Linux, TransportSuite, testing::Values(linuxTransport));

#ifndef __SANITIZE_THREAD__
class SimTestPeer final : public TestPeer {
 public:
  explicit SimTestPeer(std::unique_ptr<sim::SimPeer> peer) : peer_(std::move(peer)) {}
  ClientChannel& channel() override { return *peer_; }
  void close() override { peer_->close(); }
  void stopReading() override { peer_->stopReading(); }

 private:
  const std::unique_ptr<sim::SimPeer> peer_;
};

class SimTransportBackend final : public TransportBackend {
 public:
  Dispatch& dispatch() override { return life_.dispatch(); }
  void run(FunctionRef<void()> body) override { simulation_.run(life_, body); }
  TransportListener& listener() override {
    transport_ = std::make_unique<sim::SimTransport>(
        life_, sim::SimTransportOptions{.limits = limits, .maxDelay = std::chrono::microseconds(300)});
    return *transport_;
  }
  std::unique_ptr<TestPeer> connect() override {
    return std::make_unique<SimTestPeer>(transport_->connect({.uid = 501}, life_));
  }

 private:
  sim::Simulation simulation_;
  sim::Life& life_ = simulation_.startLife("both");
  std::unique_ptr<sim::SimTransport> transport_;
};

const NamedTransportBackend simulatedTransport{
    "Simulated", +[]() -> std::unique_ptr<TransportBackend> { return std::make_unique<SimTransportBackend>(); }};
INSTANTIATE_TEST_SUITE_P(Simulated, TransportSuite, testing::Values(simulatedTransport));

#endif

class LinuxTransportTest : public testing::Test {
 protected:
  [[nodiscard]] std::unique_ptr<os::LinuxTransport> echoing(TransportLimits limits = {}) {
    auto transport = std::make_unique<os::LinuxTransport>(
        dispatch_, os::LinuxTransportOptions{.path = place_.socket, .limits = limits});
    transport->resume([this](const std::shared_ptr<TransportConnection>& connection) {
      peers_.with([&](auto& peers) { peers.push_back(connection->peer()); });
      connection->start({.received =
                             [this, connection](std::string line) {
                               served_.with([](int& count) { ++count; });
                               connection->send(std::move(line));
                             },
                         .closed = [](CloseReason) {}});
      return true;
    });
    return transport;
  }
  [[nodiscard]] std::unique_ptr<os::LinuxClientChannel> client() {
    return os::LinuxClientChannel::connect(place_.socket, ::geteuid());
  }
  static std::string errorOf(FunctionRef<void()> work) {
    try {
      work();
      return "";
    } catch (const Error& error) {
      return error.description();
    }
  }
  [[nodiscard]] std::string listenError() {
    return errorOf(
        [&] { os::LinuxTransport(dispatch_, {.path = place_.socket}).resume([](const auto&) { return true; }); });
  }
  [[nodiscard]] std::string connectError(std::uint32_t expectedUid) {
    return errorOf([&] { (void)os::LinuxClientChannel::connect(place_.socket, expectedUid); });
  }
  [[nodiscard]] bool echoes() {
    const auto channel = client();
    channel->send("hello");
    return channel->receive(10s) == "hello";
  }

  const Place place_{};
  os::LinuxClock clock_;
  os::LinuxDispatch dispatch_{clock_};
  Guarded<std::vector<PeerCredentials>> peers_{dispatch_};
  Guarded<int> served_{dispatch_};
};

TEST_F(LinuxTransportTest, theKernelSaysWhoConnects) {
  const auto transport = echoing();
  ASSERT_TRUE(echoes());
  const PeerCredentials peer = peers_.with([](auto& peers) { return peers.at(0); });
  EXPECT_EQ(peer.pid, ::getpid());
  EXPECT_EQ(peer.uid, ::geteuid());
  EXPECT_EQ(peer.gid, ::getegid());
  std::vector<gid_t> groups(static_cast<std::size_t>(::getgroups(0, nullptr)));
  static_cast<void>(::getgroups(static_cast<int>(groups.size()), groups.data()));
  EXPECT_EQ(peer.groups, std::vector<std::uint32_t>(groups.begin(), groups.end()));
}

TEST_F(LinuxTransportTest, theSocketIsForAllAndItsDirectoryOurs) {
  const auto transport = echoing();
  struct stat facts;
  ASSERT_EQ(::lstat(place_.socket.c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 07777, 0666U);
  ASSERT_EQ(::lstat((place_.directory.path() + "/run").c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 07777, 0755U);
  EXPECT_EQ(facts.st_uid, ::geteuid());
}

TEST_F(LinuxTransportTest, aStaleSocketIsReplacedAndALiveOneIsNot) {
  EXPECT_THAT(connectError(::geteuid()), testing::HasSubstr("there is no socket"));
  {
    const auto transport = echoing();
    EXPECT_THAT(listenError(), testing::HasSubstr("Address already in use"));
    EXPECT_TRUE(echoes());
    EXPECT_THAT(connectError(::geteuid() + 1), testing::HasSubstr("belongs to user"));
  }
  EXPECT_THAT(connectError(::geteuid()), testing::HasSubstr("nobody listens"));
  const auto again = echoing();
  EXPECT_TRUE(echoes());
}

TEST_F(LinuxTransportTest, placesThatCannotBeTrustedAreRefused) {
  const std::string directory = place_.directory.path() + "/run";
  std::filesystem::create_directory(directory);
  std::ofstream(place_.socket) << "a file";
  EXPECT_THAT(listenError(), testing::HasSubstr("File exists"));
  std::filesystem::remove(place_.socket);
  ASSERT_EQ(::chmod(directory.c_str(), 0777), 0);
  EXPECT_THAT(listenError(), testing::HasSubstr("not permitted"));
}

UniqueFd anyDescriptor() { return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

// Goal:   out of descriptors a new peer is closed, the loop sleeps, and service goes on afterwards.
TEST_F(LinuxTransportTest, withoutDescriptorsNewPeersAreClosedAndOldOnesServed) {
  const auto transport = echoing();
  const auto old = client();
  old->send("hello");
  ASSERT_EQ(old->receive(10s), "hello");
  std::vector<UniqueFd> waiting;
  for (int i = 0; i < 3; ++i) waiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  std::vector<UniqueFd> fill;
  rlimit before;
  ::getrlimit(RLIMIT_NOFILE, &before);
  const rlimit low{.rlim_cur = 200, .rlim_max = before.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &low);
  // Threads of earlier tests may still be closing theirs.
  for (std::size_t filled = 1; filled != fill.size(); sleepFor(dispatch_, 50ms)) {
    filled = fill.size();
    for (UniqueFd fd = anyDescriptor(); fd.valid(); fd = anyDescriptor()) fill.push_back(std::move(fd));
  }
  const auto address = os::socketAddress(place_.socket);
  ASSERT_TRUE(address);
  for (UniqueFd& socket : waiting) {
    ASSERT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address), 0);
    char byte;
    EXPECT_EQ(::recv(socket.get(), &byte, 1, 0), 0) << "the peer must see its end";
  }
  const auto cpu = [] {
    timespec time;
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  };
  const double from = cpu();
  sleepFor(dispatch_, 100ms);
  EXPECT_LT(cpu() - from, 0.05);
  old->send("still here");
  EXPECT_EQ(old->receive(10s), "still here");
  fill.clear();
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_TRUE(echoes());
}

TEST_F(LinuxTransportTest, aBegunLineAtTheEndIsDropped) {
  const auto transport = echoing();
  SysResult<UniqueFd> socket = os::connectTo(place_.socket);
  ASSERT_TRUE(socket.ok());
  ASSERT_EQ(::send(socket->get(), "whole\nbeg", 9, 0), 9);
  char buffer[16];
  ::fcntl(socket->get(), F_SETFL, 0);
  ASSERT_EQ(::recv(socket->get(), buffer, sizeof buffer, 0), 6);
  ::shutdown(socket->get(), SHUT_WR);
  EXPECT_EQ(::recv(socket->get(), buffer, sizeof buffer, 0), 0);
  EXPECT_EQ(served_.with([](int& count) { return count; }), 1);
}

long residentKilobytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return 0;
}

// Goal:   memory stays flat under a client that asks and never reads.
TEST_F(LinuxTransportTest, tenThousandCallsOfAClientThatNeverReadsCostBoundedMemory) {
  os::LinuxTransport transport(dispatch_, {.path = place_.socket});
  transport.resume([this](const std::shared_ptr<TransportConnection>& connection) {
    connection->start({.received =
                           [this, connection](const std::string&) {
                             served_.with([](int& count) { ++count; });
                             connection->send(std::string(100'000, 'r'));
                           },
                       .closed = [](CloseReason) {}});
    return true;
  });
  SysResult<UniqueFd> socket = os::connectTo(place_.socket);
  ASSERT_TRUE(socket.ok());
  const long before = residentKilobytes();
  std::string lines;
  for (int i = 0; i < 10'000; ++i) lines += std::string(100, 'c') + "\n";
  std::size_t sent = 0;
  const auto servedSoFar = [this] { return served_.with([](int& count) { return count; }); };
  // Until as much was served as fits, and then for a while longer, in which nothing more may be.
  const MonotonicTime giveUp = clock_.monotonic() + 60s;
  for (int more = 100; more > 0 && clock_.monotonic() < giveUp; more -= servedSoFar() > 300) {
    const ssize_t count = ::send(socket->get(), lines.data() + sent, lines.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count > 0) sent += static_cast<std::size_t>(count);
    sleepFor(dispatch_, 1ms);
  }
  const long grown = residentKilobytes() - before;
  const int served = servedSoFar();
  RecordProperty("grownKilobytes", static_cast<int>(grown));
  RecordProperty("served", served);
  EXPECT_GT(served, 300);
  EXPECT_LT(served, 400);
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
  EXPECT_LT(grown, 48 * 1024);
#endif
}

}  // namespace
}  // namespace quillmark::contract
