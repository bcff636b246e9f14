// ServiceMachine: the whole helper in one simulated life, with clients that talk to it over the simulated transport.
//
//   ServiceMachine machine;
//   machine.serve([&](TestClient& client) {
//     const RpcIncoming reply = client.call(CreateSnapshot{machine.uuid.lower(), "label"});
//   });
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Files.h"
#include "platform/sim/SimPlatform.h"
#include "platform/sim/SimVolumes.h"
#include "platform/sim/Simulation.h"
#include "service/HelperProcess.h"
#include "tests/snapshots/SimDiskutil.h"
#include "wire/Commands.h"
#include "wire/Json.h"
#include "wire/QuillmarkError.h"
#include "wire/Rpc.h"

namespace quillmark {

inline void expectError(const RpcIncoming& reply, QuillmarkErrorCode code, const std::string& text) {
  ASSERT_TRUE(reply.reply.error) << text;
  EXPECT_EQ(reply.reply.error->code(), static_cast<long>(code)) << text;
  EXPECT_EQ(reply.reply.error->description(), text);
  EXPECT_FALSE(reply.reply.valueJson) << text;
}

// A JSON payload, as decoded.
template <class Record>
Record payload(const RpcIncoming& reply) {
  return decodeJson<Record>(reply.reply.valueJson.value_or("null"));
}

// A record as a JSON argument.
template <class Record>
JsonArgument json(const Record& record) {
  const std::string text = encodeJson(record);
  return {text, text.size()};
}

// One connection, asking one thing at a time.
class TestClient {
 public:
  explicit TestClient(std::unique_ptr<sim::SimPeer> peer) : peer_(std::move(peer)) {}

  template <class Command>
  RpcIncoming call(const Command& command) {
    send(command);
    return reply();
  }
  template <class Command>
  void send(const Command& command) {
    peer_->send(encodeRequest(++lastId_, Command::traits.selector, argumentValues(command)));
  }
  void sendLine(std::string_view line) { peer_->send(line); }
  // The next reply or refusal; pushes before it are kept.
  RpcIncoming reply() {
    while (true) {
      RpcIncoming incoming = decodeIncoming(peer_->receive(std::chrono::minutes(5)));
      if (incoming.kind != RpcIncoming::Kind::push) return incoming;
      pushes.push_back(incoming.selector + incoming.params);
    }
  }
  // Takes in what comes within the time.
  void listen(std::chrono::nanoseconds duration) {
    try {
      while (true) pushes.push_back(peer_->receive(duration));
    } catch (const Error&) {
      // Nothing more came.
    }
  }
  [[nodiscard]] sim::SimPeer& peer() { return *peer_; }

  // Those of one kind, as far as they came.
  [[nodiscard]] std::vector<std::string> pushed(std::string_view selector) const {
    std::vector<std::string> found;
    for (const std::string& push : pushes) {
      if (push.find(selector) != std::string::npos) found.push_back(push);
    }
    return found;
  }

  std::vector<std::string> pushes;

 private:
  std::unique_ptr<sim::SimPeer> peer_;
  std::uint64_t lastId_ = 0;
};

class ServiceMachine {
 public:
  explicit ServiceMachine(std::uint64_t seed = 3) : simulation({.seed = seed}) {
    volumes.add(sim::makeSimVolume(uuid));
    processes.script(paths.diskutil, [this](const ProcessRequest& request) {
      return sim::SimProgram{
          .output = snapshotsAsDiskutilListsThem(volumes, platform.propertyLists, request.arguments.back())};
    });
  }

  // Starts the helper, then runs the body on a fiber of the client's life.
  void run(FunctionRef<void()> body) {
    ASSERT_TRUE(simulation.run(life, [&] { helper.start(); }));
    runClient(body);
  }
  // The same with a client of root's.
  void serve(FunctionRef<void(TestClient&)> body) {
    run([&] {
      TestClient client = connect();
      body(client);
    });
  }
  void runClient(FunctionRef<void()> body) { ASSERT_TRUE(simulation.run(clientLife, body)); }

  [[nodiscard]] TestClient connect(PeerCredentials peer = {.pid = 42}) {
    return TestClient(transport.connect(std::move(peer), clientLife));
  }
  // The messages of the helper's log, without time, place and level.
  [[nodiscard]] std::vector<std::string> logged() const {
    std::vector<std::string> messages;
    for (const auto& entry : platformLog.entries()) messages.push_back(entry.message);
    return messages;
  }
  [[nodiscard]] std::vector<std::string> names() {
    std::vector<std::string> found;
    for (const sim::SimSnapshot& snapshot : volumes.snapshots(uuid)) found.push_back(snapshot.name);
    return found;
  }

  // Of what was asked for: what is indexed by itself comes when it comes.
  [[nodiscard]] std::vector<HelperEvent> events() {
    std::vector<HelperEvent> events = helper.environment().audit.readSince({}).events;
    std::erase_if(events, [](const HelperEvent& event) { return event.kind == HelperEvent::Kind::indexSnapshot; });
    return events;
  }
  // A volume whose snapshots are only shown.
  Uuid addBackupVolume() {
    Uuid backup = uuid;
    backup.bytes[0] = 1;
    sim::SimVolume disk = sim::makeSimVolume(backup, "Vault", "/Volumes/Vault", "disk2s1");
    disk.description.role = std::string("Backup");
    disk.description.deviceInternal = false;
    volumes.add(disk);
    return backup;
  }
  // Creations whose names end like this wait until the semaphore is signalled.
  void holdCreations(Semaphore& release, const std::string& ending = "") {
    volumes.watchCalls([&release, ending](sim::SimCall call, const std::string& name) {
      if (call == sim::SimCall::create && name.ends_with(ending)) release.wait();
    });
  }
  Xid addSnapshot(const std::string& name) { return *volumes.addSnapshot(uuid, name, life.clock().now()); }
  // From here on no audit record can be stored.
  void breakAuditTrail() {
    createDirectories(posix, paths.sharedDirectory, 0755);
    (void)posix.rename(auditLog(), auditLog() + ".before");
    ASSERT_TRUE(posix.mkdir(auditLog(), 0755));
  }
  void mendAuditTrail() { ASSERT_TRUE(posix.rmdir(auditLog())); }
  [[nodiscard]] std::string auditLog() const { return paths.sharedDirectory + "/activity.log"; }

  const Uuid uuid = *Uuid::parse("00112233-4455-6677-8899-aabbccddeeff");
  sim::Simulation simulation;
  sim::Life& life = simulation.startLife("helper");
  sim::Life& clientLife = simulation.startLife("client");
  sim::SimVolumes volumes;
  sim::SimPlatform sim{life, volumes, {.bundle = {.identifier = {}, .shortVersion = "1.2.3", .gitCommit = {}}}};
  sim::SimPosix& posix = sim.files();
  sim::SimProcesses& processes = sim.processes();
  sim::SimPlatformLog& platformLog = sim.log();
  sim::SimThisProcess& process = sim.process();
  sim::SimTransport& transport = sim.transport();
  const HostPaths& paths = sim.paths();
  const Platform platform = sim.platform();
  bool exited = false;
  std::function<void()> onExit;
  std::optional<std::string> healthNote;
  HelperProcess helper{platform,
                       {.executable = "quillmark-helper",
                        .exitProcess =
                            [this] {
                              exited = true;
                              if (onExit) onExit();
                            },
                        .healthNotes = {[this] { return healthNote; }}}};
};

}  // namespace quillmark
