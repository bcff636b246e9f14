#include <algorithm>

#include "ServiceMachine.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;

TEST(Connections, surviveRubbish) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    for (const char* line : {"", "nonsense", "{}", "[[[", R"({"jsonrpc":"2.0","id":1,"method":"noSuch:"})"}) {
      client.sendLine(line);
      EXPECT_EQ(client.reply().kind, RpcIncoming::Kind::refusal) << line;
    }
    EXPECT_EQ(int64Value(client.call(ProtocolVersion{}).reply), 18);
  });
}

TEST(Connections, answerANotificationWithSilence) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    client.sendLine(R"({"jsonrpc":"2.0","method":"createSnapshotOnVolume:label:reply:","params":[")" +
                    machine.uuid.lower() + R"(","x"]})");
    client.sendLine(R"({"jsonrpc":"2.0","method":"noSuch:"})");
    EXPECT_EQ(client.call(ProtocolVersion{}).id, 1U);
    client.listen(1s);
    EXPECT_THAT(client.pushed("snapshotsChanged"), SizeIs(1));
  });
  EXPECT_THAT(machine.names(), SizeIs(1));
}

TEST(Connections, hearOfABurstOfChangesOnceInLowerCase) {
  ServiceMachine machine;
  machine.run([&] {
    TestClient idle = machine.connect(), busy = machine.connect();
    for (int i = 0; i < 5; ++i) (void)busy.call(CreateSnapshot{machine.uuid.upper(), std::to_string(i)});
    (void)busy.call(CreateSnapshot{machine.uuid.lower(), "x"});
    idle.listen(1s);
    ASSERT_THAT(idle.pushed("snapshotsChanged"), SizeIs(1));
    EXPECT_THAT(idle.pushed("snapshotsChanged")[0], HasSubstr(R"("params":[")" + machine.uuid.lower() + R"("])"));
    (void)busy.call(CreateSnapshot{machine.uuid.lower(), "y"});
    idle.listen(1s);
    EXPECT_THAT(idle.pushed("snapshotsChanged"), SizeIs(2));
  });
}

// Goal:   what a client had queued and not yet started goes with it.
// Method: the first creation is held in the disk; the second waits behind it on the queue when the client leaves.
TEST(Connections, leaveNoQueuedCommandBehind) {
  ServiceMachine machine;
  Semaphore held(machine.life.dispatch()), release(machine.life.dispatch());
  machine.volumes.watchCalls([&](sim::SimCall call, const std::string& name) {
    if (call != sim::SimCall::create || !name.ends_with(".first")) return;
    held.signal();
    release.wait();
  });
  machine.serve([&](TestClient& client) {
    client.send(CreateSnapshot{machine.uuid.lower(), "first"});
    client.send(CreateSnapshot{machine.uuid.lower(), "second"});
    held.wait();
    (void)client.call(ProtocolVersion{});  // the second one is on its queue
  });
  machine.simulation.runFor(1s);  // the closed connection is seen
  machine.simulation.run(machine.life, [&] { release.signal(); });
  machine.simulation.runFor(1s);
  EXPECT_THAT(machine.names(), ElementsAre(HasSubstr(".first")));
}

TEST(Connections, keepTwoClientsApart) {
  ServiceMachine machine;
  Semaphore release(machine.life.dispatch());
  machine.holdCreations(release, ".slow");
  machine.run([&] {
    TestClient slow = machine.connect(), quick = machine.connect();
    slow.send(CreateSnapshot{machine.uuid.lower(), "slow"});
    EXPECT_FALSE(quick.call(CreateSnapshot{machine.uuid.lower(), "quick"}).reply.error);
    EXPECT_EQ(int64Value(slow.call(ProtocolVersion{}).reply), 18) << "its own other queues go on, too";
    release.signal();
    EXPECT_FALSE(slow.reply().reply.error);
  });
  EXPECT_THAT(machine.names(), SizeIs(2));
}

TEST(Connections, areReadNoFurtherWhileTooMuchIsUnanswered) {
  ServiceMachine machine;
  Semaphore release(machine.life.dispatch());
  int started = 0;
  machine.volumes.watchCalls([&](sim::SimCall call, const std::string&) {
    if (call == sim::SimCall::create && ++started == 1) release.wait();
  });
  machine.serve([&](TestClient& client) {
    for (int i = 0; i < 1000; ++i) client.send(CreateSnapshot{machine.uuid.lower(), std::to_string(i)});
    client.listen(1s);
    const auto entries = machine.logged();
    const auto begun = std::count_if(entries.begin(), entries.end(),
                                     [](const std::string& line) { return line.starts_with("XPC createSnapshot"); });
    EXPECT_EQ(begun, 256);
    release.signal();
    for (int i = 0; i < 1000; ++i) EXPECT_FALSE(client.reply().reply.error);
  });
  EXPECT_THAT(machine.names(), SizeIs(1000));
}

TEST(Shutdown, refusesMutationsAndServesQueriesWhileItDrains) {
  ServiceMachine machine;
  Semaphore release(machine.life.dispatch());
  machine.holdCreations(release, ".long");
  machine.serve([&](TestClient& client) {
    client.send(CreateSnapshot{machine.uuid.lower(), "long"});
    (void)client.call(ProtocolVersion{});
    machine.helper.requestQuit();
    EXPECT_FALSE(machine.helper.environment().shutdown.requestQuit()) << "one drain only";
    const RpcIncoming refused = client.call(DeleteSnapshot{"x", machine.uuid.lower(), true});
    EXPECT_EQ(refused.reply.error->code(), static_cast<long>(QuillmarkErrorCode::helperRestarting));
    EXPECT_EQ(refused.reply.error->description(), "Quillmark helper is restarting; try again in a moment.");
    EXPECT_FALSE(client.call(ListSnapshots{machine.uuid.lower(), false, false}).reply.error);
    TestClient late = machine.connect();
    EXPECT_THROW((void)late.call(ProtocolVersion{}), Error);
    EXPECT_FALSE(machine.exited);
    release.signal();
    EXPECT_FALSE(client.reply().reply.error) << "what was queued before runs out, and is answered";
  });
  machine.simulation.runFor(1s);
  EXPECT_TRUE(machine.exited);
  EXPECT_THAT(machine.logged(), Contains("quit requested: draining outstanding work (timeout 60s)"));
  EXPECT_THAT(machine.logged(), Contains("quit: drain complete; exiting"));
  EXPECT_THAT(machine.logged(), Contains("Rejecting new XPC connection while helper shutdown is draining"));
}

TEST(Shutdown, answersTrueToTheFirstWhoAsksAndFalseToTheSecond) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    ServiceMachine machine(seed);
    machine.run([&] {
      TestClient a = machine.connect(), b = machine.connect();
      (void)a.call(ProtocolVersion{});
      (void)b.call(ProtocolVersion{});
      a.send(RequestQuit{});
      b.send(RequestQuit{});
      const std::string answers = *a.reply().reply.valueJson + *b.reply().reply.valueJson;
      EXPECT_TRUE(answers == "truefalse" || answers == "falsetrue") << answers << ", seed " << seed;
    });
    machine.simulation.runFor(1s);
    EXPECT_TRUE(machine.exited);
    const auto logged = machine.logged();
    EXPECT_EQ(std::count(logged.begin(), logged.end(), "XPC requestQuit()"), 2);
    EXPECT_EQ(std::count(logged.begin(), logged.end(), "quit: drain complete; exiting"), 1);
  }
}

// Goal:   a change is either refused or done before the process goes; none is begun by a process that is gone.
// Method: clients make snapshots as fast as they can while one asks for the end. What stands at the exit is what was
//         answered, whatever order the seed draws.
TEST(Shutdown, letsNoChangeSlipBetweenTheCheckAndTheQueue) {
  for (std::uint64_t seed = 1; seed <= 60; ++seed) {
    ServiceMachine machine(seed);
    std::optional<std::size_t> atExit;
    machine.onExit = [&] { atExit = machine.names().size(); };
    machine.volumes.watchCalls([&](sim::SimCall call, const std::string&) {
      if (call == sim::SimCall::create) machine.life.delay(10ms);  // what slipped through would still be under way
    });
    std::size_t made = 0, refused = 0;
    machine.run([&] {
      TestClient a = machine.connect(), b = machine.connect(), quitter = machine.connect();
      for (TestClient* client : {&a, &b, &quitter}) (void)client->call(ProtocolVersion{});
      for (int i = 0; i < 8; ++i) {
        a.send(CreateSnapshot{machine.uuid.lower(), "a" + std::to_string(i)});
        b.send(CreateSnapshot{machine.uuid.lower(), "b" + std::to_string(i)});
        if (i == static_cast<int>(seed % 8)) quitter.send(RequestQuit{});
      }
      EXPECT_EQ(quitter.reply().reply.valueJson, "true");
      for (int i = 0; i < 16; ++i) ++((i % 2 == 0 ? a : b).reply().reply.error ? refused : made);
    });
    machine.simulation.runFor(1s);
    EXPECT_EQ(atExit, made) << "seed " << seed;
    EXPECT_EQ(machine.names().size(), made) << "seed " << seed;
    EXPECT_EQ(made + refused, 16U);
  }
}

// Goal:   check and queue are one step: work that was let in is waited for, however slowly it reached its queue.
// Method: the work gives every other fiber the turn before it queues; the end is asked for meanwhile.
TEST(Shutdown, waitsForWhateverItLetIn) {
  int letIn = 0;
  for (std::uint64_t seed = 1; seed <= 50; ++seed) {
    ServiceMachine machine(seed);
    Dispatch& dispatch = machine.life.dispatch();
    bool isLetIn = false, done = false, exited = false;
    const auto exit = [&] {
      exited = true;
      EXPECT_EQ(done, isLetIn) << "seed " << seed;
    };
    ShutdownCoordinator coordinator(dispatch, machine.helper.log(), {nullptr, nullptr, exit});
    const auto queue = dispatch.makeQueue({.label = "mutation"});
    coordinator.add(machine.life.random().uuid(), {queue});
    machine.simulation.run(machine.life, [&] {
      machine.life.spawn("client", [&] {
        (void)coordinator.admit([&] {
          isLetIn = true;
          for (int i = 0; i < 20; ++i) machine.simulation.yield();
          queue->async([&] {
            machine.life.delay(1s);
            done = true;
          });
        });
      });
      machine.life.spawn("quitter", [&] { EXPECT_TRUE(coordinator.requestQuit()); });
    });
    machine.simulation.runFor(5s);
    EXPECT_TRUE(exited);
    letIn += isLetIn;
  }
  EXPECT_GT(letIn, 0);
}

TEST(Shutdown, abandonsWhatTakesLongerThanAMinute) {
  ServiceMachine machine;
  machine.volumes.watchCalls([&](sim::SimCall call, const std::string&) {
    if (call == sim::SimCall::create) machine.life.delay(2min);
  });
  machine.serve([&](TestClient& client) {
    client.send(CreateSnapshot{machine.uuid.lower(), "long"});
    (void)client.call(ProtocolVersion{});
    machine.helper.requestQuit();
    client.listen(59s);
    EXPECT_FALSE(machine.exited);
    client.listen(2s);
    EXPECT_TRUE(machine.exited);
  });
  EXPECT_THAT(machine.logged(),
              Contains("quit: drain timed out after 60s; exiting anyway (in-flight work is abandoned and "
                       "retried by the next helper)"));
  machine.simulation.runFor(3min);
}

// Goal:   whatever order the seed draws, clients that make and delete at once end with what they were told.
TEST(Connections, agreeWithTheVolumeUnderAnyInterleaving) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    ServiceMachine machine(seed);
    int kept = 0;
    machine.run([&] {
      const std::string uuid = machine.uuid.lower();
      TestClient a = machine.connect(), b = machine.connect();
      for (int i = 0; i < 12; ++i) {
        a.send(CreateSnapshot{uuid, "same"});
        b.send(CreateSnapshot{uuid, "same"});
      }
      std::vector<std::string> made;
      for (int i = 0; i < 24; ++i) {
        const RpcIncoming reply = (i % 2 == 0 ? a : b).reply();
        if (!reply.reply.error) made.push_back(stringValue(reply.reply));
      }
      EXPECT_THAT(made, SizeIs(8)) << "one plain name and seven suffixes within the second";
      for (const std::string& name : made) {
        a.send(DeleteSnapshot{name, uuid, false});
        b.send(DeleteSnapshot{name, uuid, false});
      }
      int deleted = 0;
      for (std::size_t i = 0; i < made.size(); ++i) {
        deleted += !a.reply().reply.error;
        deleted += !b.reply().reply.error;
      }
      EXPECT_EQ(deleted, 8) << "each is deleted once, whoever was first; seed " << seed;
      kept = static_cast<int>(machine.names().size());
    });
    EXPECT_EQ(kept, 0) << "seed " << seed;
  }
}

}  // namespace
}  // namespace quillmark
