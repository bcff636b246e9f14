#include "ServiceMachine.h"
#include "scheduling/Scheduler.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;
using enum QuillmarkErrorCode;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

// A policy of these cadences alone, on a volume of whatever size.
SchedulePolicy only(std::set<SnapshotCadence> cadences) {
  SchedulePolicy policy = SchedulePolicy::makeDefault().normalized();
  policy.enabledCadences = std::move(cadences);
  policy.pruneOnLowSpace = false;
  return policy;
}

const std::string unknownVolume = "ffffffff-4455-6677-8899-aabbccddeeff";

TEST(ScheduleCommands, refuseInTheOrderOfTheirSteps) {
  ServiceMachine machine;
  const Uuid backup = machine.addBackupVolume();
  machine.serve([&](TestClient& client) {
    const JsonArgument nonsense{R"({"enabled":7})", 13};
    expectError(client.call(SetSchedule{"x", nonsense}), invalidVolumeUUID, "Volume UUID is malformed");
    EXPECT_TRUE(client.call(SetSchedule{backup.lower(), nonsense}).reply.error);
    SchedulePolicy policy = only({SnapshotCadence::daily});
    expectError(client.call(SetSchedule{unknownVolume, json(policy)}), volumeNotFound,
                "No mounted APFS volume with UUID " + unknownVolume);
    expectError(
        client.call(SetSchedule{backup.lower(), json(policy)}), volumeNotAPFSData,
        "Volume \"Vault\" has the APFS Backup role (a backup target such as a Time Machine disk). Quillmark only "
        "displays its snapshots, so it will not schedule automatic snapshots.");
    EXPECT_THAT(machine.logged(), Contains(StartsWith("setSchedule failed: Volume \"Vault\"")));
    EXPECT_EQ(client.call(ListSchedules{}).reply.valueJson, "{}");
    policy.enabled = false;
    for (const std::string& uuid : {unknownVolume, backup.lower()}) {
      EXPECT_FALSE(client.call(SetSchedule{uuid, json(policy)}).reply.error)
          << "what does nothing is kept for any volume";
    }
    EXPECT_THAT((payload<std::map<std::string, SchedulePolicy>>(client.call(ListSchedules{}))), SizeIs(2));
  });
}

TEST(ScheduleCommands, keepAndStampAPolicyAndBelieveNoClientsStamps) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    const auto set = [&](const SchedulePolicy& policy) {
      return payload<SchedulePolicy>(client.call(SetSchedule{machine.uuid.upper(), json(policy)}));
    };
    SchedulePolicy policy = only({SnapshotCadence::hourly, SnapshotCadence::daily});
    policy.scheduleDisabledAt = Date::fromReference(1);
    policy.lowSpaceBytes = 1;
    const SchedulePolicy first = set(policy);
    EXPECT_FALSE(first.scheduleDisabledAt);
    EXPECT_EQ(first.lowSpaceBytes, ScheduleLimits::leastLowSpaceBytes);
    EXPECT_EQ(payload<SchedulePolicy>(client.call(GetSchedule{machine.uuid.lower()})), first);

    policy.enabledCadences = {SnapshotCadence::daily};
    const SchedulePolicy second = set(policy);
    ASSERT_TRUE(second.cadenceDisabledAt);
    EXPECT_EQ(second.cadenceDisabledAt->at(SnapshotCadence::hourly), machine.life.clock().now());
    sleepFor(machine.life.dispatch(), 1min);
    policy.enabled = false;
    const SchedulePolicy third = set(policy);
    EXPECT_EQ(third.scheduleDisabledAt, machine.life.clock().now());
    EXPECT_EQ(payload<SchedulePolicy>(client.call(GetSchedule{machine.uuid.lower()})), third);
  });
}

TEST(ScheduleCommands, makeTheSchedulerLookAnew) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    Scheduler& scheduler = *machine.helper.environment().scheduler;
    const std::uint64_t before = scheduler.currentGeneration(machine.uuid.lower());
    (void)client.call(SetSchedule{machine.uuid.upper(), json(only({}))});
    EXPECT_EQ(scheduler.currentGeneration(machine.uuid.lower()), before + 1);
    (void)client.call(CreateSnapshot{machine.uuid.upper(), "x"});
    EXPECT_EQ(scheduler.currentGeneration(machine.uuid.lower()), before + 2) << "as does every change to the snapshots";
    (void)client.call(SetSchedule{"x", json(only({}))});
    EXPECT_EQ(scheduler.currentGeneration(machine.uuid.lower()), before + 2);
  });
}

TEST(ScheduleCommands, takeSnapshotsInTheNextMinuteAndKeepTheTrail) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    (void)client.call(SetSchedule{machine.uuid.lower(), json(only({SnapshotCadence::freq, SnapshotCadence::hourly}))});
  });
  machine.simulation.runFor(61s);
  EXPECT_THAT(machine.names(),
              testing::UnorderedElementsAre(StartsWith("com.harrowfern.Quillmark.auto.freq.2026-03-01T"),
                                            StartsWith("com.harrowfern.Quillmark.auto.hourly.2026-")));
  ASSERT_THAT(machine.events(), SizeIs(2));
  for (const HelperEvent& event : machine.events()) {
    EXPECT_EQ(event.client, HelperEvent::Client::helper);
    EXPECT_TRUE(event.succeeded);
  }
}

TEST(ScheduleCommands, areKeptFromChangingAStoreThatCanNotBeRead) {
  ServiceMachine machine;
  createDirectories(machine.posix, machine.paths.stateDirectory, 0700);
  writeAtomically(machine.posix, machine.life.random(), machine.paths.state("schedules.json"), "rubbish", 0600);
  machine.serve([&](TestClient& client) {
    EXPECT_TRUE(client.call(SetSchedule{machine.uuid.lower(), json(only({}))}).reply.error);
    EXPECT_EQ(readFile(machine.posix, machine.paths.state("schedules.json")), "rubbish");
    const auto health = payload<HelperHealthStatus>(client.call(HelperHealth{}));
    EXPECT_EQ(health.schedules.state, HelperSubsystemState::unavailable);
    EXPECT_EQ(health.scheduler, HelperSubsystemHealth());
    EXPECT_TRUE(HealthMonitor::automaticDeletionBlocked(health));
  });
  EXPECT_THAT(machine.logged(),
              Contains(StartsWith("Schedule storage is degraded; every automatic snapshot creation and "
                                  "deletion path is disabled: decode failed: ")));
}

TEST(ScheduleCommands, tellEveryClientOfFreeSpaceAndOfWhatFailed) {
  ServiceMachine machine;
  machine.run([&] {
    TestClient first = machine.connect(), second = machine.connect();
    EXPECT_EQ(first.call(GetFreeSpaceStates{}).reply.valueJson, "[]") << "not measured yet";
    (void)first.call(SetSchedule{machine.uuid.lower(), json(only({SnapshotCadence::hourly}))});
    machine.volumes.failNext(sim::SimCall::create, EIO);
    for (TestClient* client : {&first, &second}) client->listen(61s);
    const std::string message = "Failed to create hourly snapshot: fs_snapshot_create failed: Input/output error";
    for (const TestClient* client : {&first, &second}) {
      EXPECT_THAT(client->pushes, Contains(HasSubstr(R"("freeSpaceUpdateWithJsonStates:","params":[[{)")));
      EXPECT_THAT(client->pushes,
                  Contains(HasSubstr(R"("scheduleEventWithVolumeUUID:cadenceRaw:eventRaw:message:","params":[")" +
                                     machine.uuid.upper() + R"(","hourly","create_failed",")" + message)));
      EXPECT_THAT(client->pushes, Contains(AllOf(HasSubstr(R"("notificationPostedWithJson:","params":[{)"),
                                                 HasSubstr(R"("title":"Quillmark snapshot failed")"))));
    }
    const auto states = payload<std::vector<VolumeFreeSpaceState>>(first.call(GetFreeSpaceStates{}));
    ASSERT_THAT(states, SizeIs(1));
    EXPECT_EQ(VolumeUuid(states[0].volumeUUID), VolumeUuid(machine.uuid.lower()));
  });
  const auto lines =
      JSONLinesReader<HelperNotification>(machine.posix, machine.platformLog, notificationLogDescription(machine.paths))
          .readSince({});
  ASSERT_THAT(lines.records, SizeIs(1));
  EXPECT_EQ(lines.records[0].deepLink, "quillmark://volume?uuid=" + machine.uuid.upper());
}

// An event of no cadence has an empty word for it.
TEST(ScheduleNotices, sendAnEmptyCadenceWhereThereIsNone) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    (void)client.call(ProtocolVersion{});
    HelperEnvironment& environment = machine.helper.environment();
    ScheduleNotices notices(environment.connections, environment.notifications);
    notices.broadcast("u", std::nullopt, ScheduleEvent::pruneCompleted, "m");
    client.listen(1s);
    EXPECT_THAT(client.pushes, ElementsAre(HasSubstr(R"("params":["u","","prune_completed","m"])")));
  });
}

TEST(Quitting, stopsTheScheduler) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    (void)client.call(SetSchedule{machine.uuid.lower(), json(only({SnapshotCadence::hourly}))});
    EXPECT_EQ(client.call(RequestQuit{}).reply.valueJson, "true");
  });
  machine.simulation.runFor(2min);
  EXPECT_TRUE(machine.exited);
  EXPECT_THAT(machine.logged(), Contains("scheduler stopped"));
  EXPECT_THAT(machine.names(), IsEmpty());
}

}  // namespace
}  // namespace quillmark
