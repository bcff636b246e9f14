#include "ServiceMachine.h"
#include "service/PeerIdentityCache.h"
#include "service/RefusalBudget.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;
using sim::SimPeerFacts;
using sim::SimPeerIdentities;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::StartsWith;

constexpr const char* cli = "com.harrowfern.quillmark.cli";
constexpr int pid = 77;

bool isServed(ServiceMachine& machine, PeerCredentials peer) {
  TestClient client = machine.connect(std::move(peer));
  try {
    return int64Value(client.call(ProtocolVersion{}).reply) == 18;
  } catch (const Error&) {
    return false;
  }
}

std::vector<std::string> linesAbout(const ServiceMachine& machine, int peer) {
  std::vector<std::string> lines;
  for (const std::string& line : machine.logged()) {
    if (line.find("pid=" + std::to_string(peer)) != std::string::npos) lines.push_back(line);
  }
  return lines;
}

struct Case {
  const char* what;
  SimPeerFacts facts;
  bool isServed;
  std::vector<std::string> lines;  // all but the ends of connections
};

std::string incoming(const std::string& description) {
  return "Incoming XPC connection from pid=77 (" + description + ")";
}
const std::string willBeChecked = "Connection from pid=77 will be checked against the designated requirement";
const std::string failed = "Rejecting connection from pid=77: peer failed the designated requirement";
const std::string unresolved = "Rejecting connection from pid=77: peer identity could not be resolved";
std::string classified(const std::string& as) { return "Peer pid=77 classified as client=" + as; }
const std::string accepted = "Accepted XPC connection from pid=77 (subject to codesign check)";

const PeerCredentials peerOf501{.uid = 501, .gid = 20, .pid = pid};
const auto token = SimPeerIdentities::usualToken(peerOf501);
const std::string cliAtHome = std::string(cli) + " @ /usr/local/bin/quill";

const std::vector<Case>& cases() {
  static const std::vector<Case> all = {
      {"a genuine client",
       {.token = token},
       true,
       {incoming(cliAtHome), willBeChecked, classified("cli user=ida"), accepted}},
      {"the gui, whose path can't be read",
       {.token = token, .identity = {"com.harrowfern.quillmark", true}, .path = std::nullopt},
       true,
       {incoming("com.harrowfern.quillmark @ ?"), willBeChecked, classified("gui user=ida"), accepted}},
      {"the extension",
       {.token = token, .identity = {"com.harrowfern.quillmark.findersync", true}},
       true,
       {incoming("com.harrowfern.quillmark.findersync @ /usr/local/bin/quill"), willBeChecked,
        classified("finderSync user=ida"), accepted}},
      {"a known identifier that fails the requirement",
       {.token = token, .identity = {cli, false}},
       false,
       {incoming(cliAtHome), willBeChecked, failed}},
      {"no identifier",
       {.token = token, .identity = {std::nullopt, true}},
       false,
       {incoming("/usr/local/bin/quill"), willBeChecked, unresolved}},
      {"an unknown identifier",
       {.token = token, .identity = {"com.harrowfern.quillmark.helper", true}},
       false,
       {incoming("com.harrowfern.quillmark.helper @ /usr/local/bin/quill"), willBeChecked, unresolved}},
      {"an identifier in other letters",
       {.token = token, .identity = {"com.harrowfern.Quillmark", true}},
       false,
       {incoming("com.harrowfern.Quillmark @ /usr/local/bin/quill"), willBeChecked, unresolved}},
      {"by process ID, a client that fails the requirement, which is left to the platform",
       {.identity = {cli, false}, .user = 501},
       true,
       {incoming(cliAtHome), willBeChecked, classified("cli user=ida"), accepted}},
      {"by process ID, a client without a user",
       {.identity = {cli, true}, .user = std::nullopt},
       false,
       {incoming(cliAtHome), willBeChecked, unresolved}},
      {"a token of other than eight words is none",
       {.token = {{1, 2, 3}}, .identity = {cli, false}, .user = 7},
       true,
       {incoming(cliAtHome), willBeChecked, classified("cli user=<unknown>"), accepted}},
      {"a path with a line break",
       {.token = token, .path = "/tmp/a\nb"},
       true,
       {incoming(std::string(cli) + " @ /tmp/a\\x0ab"), willBeChecked, classified("cli user=ida"), accepted}},
      {"a user who isn't admitted",
       {.admitted = false, .token = token},
       false,
       {"Peer pid=77 uid=501 is neither root's nor an installed client of an admitted user", failed}},
  };
  return all;
}

TEST(PeerAcceptance, decidesStepByStepAndTellsEachStep) {
  for (const Case& each : cases()) {
    SCOPED_TRACE(each.what);
    ServiceMachine machine;
    machine.sim.users().add(501, "ida");
    machine.sim.peers().set(pid, each.facts);
    machine.run([&] { EXPECT_EQ(isServed(machine, peerOf501), each.isServed); });
    auto lines = linesAbout(machine, pid);
    std::erase(lines, "XPC connection from pid=77 invalidated");
    EXPECT_THAT(lines, ElementsAreArray(each.lines));
  }
}

TEST(PeerAcceptance, looksAtNobodyWhileDraining) {
  ServiceMachine machine;
  Semaphore release(machine.life.dispatch());
  machine.holdCreations(release);
  machine.serve([&](TestClient& client) {
    client.send(CreateSnapshot{machine.uuid.lower(), "long"});
    (void)client.call(ProtocolVersion{});
    machine.helper.requestQuit();
    const unsigned before = machine.sim.peers().resolutions();
    EXPECT_FALSE(isServed(machine, {.pid = pid}));
    EXPECT_EQ(machine.sim.peers().resolutions(), before);
    release.signal();
  });
  EXPECT_THAT(linesAbout(machine, pid), ElementsAre());
}

TEST(PeerAcceptance, callsAPeerByItsTokensProcessToTheEnd) {
  ServiceMachine machine;
  constexpr int ofToken = 78;
  machine.sim.peers().set(pid, {.token = SimPeerIdentities::usualToken({.uid = 501, .gid = 20, .pid = ofToken})});
  machine.run([&] { EXPECT_TRUE(isServed(machine, peerOf501)); });
  EXPECT_THAT(linesAbout(machine, ofToken),
              IsSupersetOf({"Peer pid=78 classified as client=cli user=<unknown>",
                            "Accepted XPC connection from pid=78 (subject to codesign check)",
                            "XPC connection from pid=78 invalidated"}));
  EXPECT_THAT(linesAbout(machine, pid), ElementsAre());
}

TEST(PeerAcceptance, givesTheExtensionItsOwnCommandsAlone) {
  ServiceMachine machine;
  machine.sim.peers().set(pid, {.token = token, .identity = {"com.harrowfern.quillmark.findersync", true}});
  machine.run([&] {
    TestClient extension = machine.connect(peerOf501);
    for (const CommandSpec& command : commandTable()) {
      if (command.protocols == CommandProtocols::helperAndFinder) continue;
      extension.sendLine(R"({"jsonrpc":"2.0","id":1,"method":")" + std::string(command.selector) + R"(","params":[]})");
      EXPECT_EQ(extension.reply().refusalCode, static_cast<int>(RpcFault::methodNotFound))
          << command.selector << ", also with other arguments than it takes";
    }
    const RpcIncoming health = extension.call(HelperHealth{});
    EXPECT_EQ(health.refusalCode, static_cast<int>(RpcFault::methodNotFound));
    EXPECT_EQ(int64Value(extension.call(ProtocolVersion{}).reply), 18);
  });
}

TEST(PeerAcceptance, endsAConnectionThatAnotherProgramUses) {
  ServiceMachine machine;
  machine.run([&] {
    TestClient client = machine.connect({.pid = pid});
    EXPECT_EQ(int64Value(client.call(ProtocolVersion{}).reply), 18);
    client.peer().becomeAnother();
    EXPECT_THROW((void)client.call(CreateSnapshot{machine.uuid.lower(), "evil"}), Error);
  });
  EXPECT_TRUE(machine.names().empty());
  EXPECT_THAT(machine.logged(),
              IsSupersetOf({"Ending the connection from pid=77: it was used by another program than the one let in",
                            "XPC connection from pid=77 invalidated"}));
}

TEST(PeerAcceptance, looksIntoAProgramOnceForManyConnections) {
  ServiceMachine machine;
  machine.run([&] {
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(isServed(machine, {.pid = pid}));
    EXPECT_EQ(machine.sim.peers().resolutions(), 1U);
    // The same process as another program.
    machine.sim.peers().set(pid, {.token = SimPeerIdentities::usualToken({.pid = pid}, 8), .identity = {cli, false}});
    EXPECT_FALSE(isServed(machine, {.pid = pid}));
    EXPECT_FALSE(isServed(machine, {.pid = pid})) << "what was found out stands";
    EXPECT_EQ(machine.sim.peers().resolutions(), 2U);
  });
}

// Goal:   a flood of refused connections writes a bounded number of lines; who is let in is told in full.
TEST(PeerAcceptance, tellsAFloodOfRefusalsInAFewLines) {
  ServiceMachine machine;
  machine.sim.peers().set(pid, {.admitted = false});
  machine.run([&] {
    const std::size_t before = machine.logged().size();
    for (int i = 0; i < 300; ++i) EXPECT_FALSE(isServed(machine, peerOf501));
    EXPECT_LT(machine.logged().size() - before, 50U);
    EXPECT_TRUE(isServed(machine, {.uid = 0, .pid = 5}));
    machine.sim.peers().set(6, {});
    EXPECT_TRUE(isServed(machine, {.uid = 501, .pid = 6})) << "the same user through a genuine client";
    machine.clientLife.delay(61s);
    EXPECT_FALSE(isServed(machine, peerOf501));
  });
  EXPECT_THAT(machine.logged(),
              IsSupersetOf({"20 connections of uid=501 were refused within a minute: further ones are only counted",
                            "280 more connections of uid=501 were refused",
                            "Accepted XPC connection from pid=5 (subject to codesign check)",
                            "Accepted XPC connection from pid=6 (subject to codesign check)"}));
  EXPECT_THAT(linesAbout(machine, 6), Contains(StartsWith("Incoming")));
}

TEST(PeerAcceptance, boundsTheFloodOfManyUsersToo) {
  ServiceMachine machine;
  machine.run([&] {
    const std::size_t before = machine.logged().size();
    for (std::uint32_t user = 1000; user < 2000; ++user) {
      for (int i = 0; i < 3; ++i) EXPECT_FALSE(isServed(machine, {.uid = user, .pid = pid}));
    }
    EXPECT_LT(machine.logged().size() - before, 64U * 6 + 50);
  });
  EXPECT_THAT(machine.logged(), Contains(HasSubstr("connections of other users were refused")));
}

class PeerIdentityCacheTest : public testing::Test {
 protected:
  PeerIdentity lookUp(std::uint32_t program) {
    return cache_.lookUp({{program}}, [&] {
      ++resolutions_;
      return PeerIdentity{std::to_string(program), true};
    });
  }
  void run(FunctionRef<void()> body) { ASSERT_TRUE(simulation_.run(life_, body)); }

  sim::Simulation simulation_;
  sim::Life& life_ = simulation_.startLife("cache");
  PeerIdentityCache cache_{life_.dispatch()};
  int resolutions_ = 0;
};

TEST_F(PeerIdentityCacheTest, keepsAnEntryForLessThan300Seconds) {
  run([&] {
    (void)lookUp(1);
    life_.delay(299s);
    EXPECT_EQ(lookUp(1).bundleID, "1");
    EXPECT_EQ(resolutions_, 1) << "and a hit doesn't renew it";
    life_.delay(1s);
    (void)lookUp(1);
    EXPECT_EQ(resolutions_, 2);
  });
}

TEST_F(PeerIdentityCacheTest, isEmptiedByThe65thEntry) {
  run([&] {
    for (std::uint32_t program = 1; program <= 64; ++program) (void)lookUp(program);
    (void)lookUp(1);
    EXPECT_EQ(resolutions_, 64);
    (void)lookUp(65);
    (void)lookUp(65);
    EXPECT_EQ(resolutions_, 65);
    (void)lookUp(64);
    EXPECT_EQ(resolutions_, 66) << "only the last one is left";
  });
}

TEST_F(PeerIdentityCacheTest, tellsKeysApartByEveryWord) {
  run([&] {
    for (std::size_t word = 0; word < auditTokenWords; ++word) {
      PeerIdentityCache::Key key;
      key.values[word] = 7;
      const auto name = std::to_string(word);
      EXPECT_EQ(cache_.lookUp(key, [&] { return PeerIdentity{name, true}; }).bundleID, name);
    }
  });
}

TEST_F(PeerIdentityCacheTest, resolvesOutsideItsLock) {
  run([&] {
    const PeerIdentity outer = cache_.lookUp({{1}}, [&] { return PeerIdentity{lookUp(2).bundleID, false}; });
    EXPECT_EQ(outer, (PeerIdentity{"2", false}));
  });
}

}  // namespace
}  // namespace quillmark
