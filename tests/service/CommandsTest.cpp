#include "ServiceMachine.h"
#include "scheduling/rules/HelperSettings.h"
#include "scheduling/rules/SchedulePolicy.h"
#include "snapshots/MountNames.h"
#include "wire/Json.h"
#include "wire/Records.h"

namespace quillmark {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const std::string ours = "com.harrowfern.Quillmark.manual.2026-03-01T09-00-00Z";

std::vector<SnapshotRecord> recordsOf(const RpcIncoming& reply) {
  return decodeJson<std::vector<SnapshotRecord>>(reply.reply.valueJson.value_or("[]"));
}

TEST(Commands, makeListMountUnmountAndDeleteASnapshot) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    const std::string uuid = machine.uuid.upper();
    EXPECT_EQ(stringValue(client.call(CreateSnapshot{uuid, "before upgrade"}).reply), ours + ".before-upgrade");
    const auto records = recordsOf(client.call(ListSnapshots{uuid, false, false}));
    ASSERT_EQ(records.size(), 1U);
    const SnapshotRecord& record = records[0];
    EXPECT_EQ(record.name, ours + ".before-upgrade");
    EXPECT_NE(record.xid.value, 0U);
    EXPECT_FALSE(record.isProtected || record.isAutoProtected || record.isIndexed);
    const std::string path = stringValue(client.call(MountSnapshot{record.name, uuid, record.xid.value}).reply);
    EXPECT_EQ(path, machine.paths.userMountRoot + "/Data-" + machine.uuid.lower() + "@snap-" +
                        std::to_string(record.xid.value));
    EXPECT_EQ(stringValue(client.call(MountSnapshot{record.name, uuid, record.xid.value}).reply), path);
    EXPECT_EQ(machine.volumes.mounts().size(), 1U) << "a mount that stands is used again";
    EXPECT_FALSE(client.call(UnmountSnapshot{path}).reply.error);
    EXPECT_THAT(machine.volumes.mounts(), IsEmpty());
    EXPECT_FALSE(client.call(DeleteSnapshot{record.name, uuid, false}).reply.error);
    EXPECT_THAT(machine.names(), IsEmpty());
  });
  EXPECT_THAT(machine.logged(), Contains("createSnapshot OK: " + ours + ".before-upgrade on Data"));
  EXPECT_THAT(machine.logged(), Contains("listSnapshots resolved volume: Data at /Volumes/Data role=<none>"));
  EXPECT_THAT(machine.logged(), Contains("listSnapshots OK: 1 visible / 1 raw"));
  EXPECT_THAT(machine.logged(), Contains(HasSubstr("(newMount=false)")));
}

TEST(Commands, refuseWhatIsMalformedUnknownOrNotTheirs) {
  ServiceMachine machine;
  const Uuid backup = machine.addBackupVolume();
  using enum QuillmarkErrorCode;
  machine.serve([&](TestClient& client) {
    const std::string uuid = machine.uuid.lower(), vault = backup.lower();
    const std::string malformed = "Volume UUID is malformed", badName = "Snapshot name is malformed";
    const std::string badLabel = "Label must be 0-127 chars, no slashes, no control chars";
    const std::string unknown = "ffffffff-4455-6677-8899-aabbccddeeff";
    for (const std::string& text : {std::string(), uuid + "0", std::string(36, 'x')}) {
      expectError(client.call(ListSnapshots{text, false, false}), invalidVolumeUUID, malformed);
      expectError(client.call(CreateSnapshot{text, ""}), invalidVolumeUUID, malformed);
      expectError(client.call(DeleteSnapshot{"a", text, false}), invalidVolumeUUID, malformed);
      expectError(client.call(MountSnapshot{"a", text, 1}), invalidVolumeUUID, malformed);
      expectError(client.call(GetSchedule{text}), invalidVolumeUUID, malformed);
    }
    for (const std::string& label : {std::string(128, 'a'), std::string("a/b"), std::string("a\nb")}) {
      expectError(client.call(CreateSnapshot{uuid, label}), invalidLabel, badLabel);
    }
    std::string wide;
    for (int i = 0; i < 64; ++i) wide += "ü";
    expectError(client.call(CreateSnapshot{uuid, wide}), invalidLabel, badLabel);
    for (const std::string& name : {std::string(), std::string(241, 'a'), std::string("a/b"), std::string("a\tb"),
                                    std::string("\xF4\x8E\xBC\xAF")}) {
      expectError(client.call(DeleteSnapshot{name, uuid, true}), invalidSnapshotUUID, badName);
      expectError(client.call(MountSnapshot{name, uuid, 1}), invalidSnapshotUUID, badName);
    }
    expectError(client.call(CreateSnapshot{unknown, ""}), volumeNotFound,
                "No mounted APFS volume with UUID " + unknown);
    expectError(client.call(DeleteSnapshot{std::string(240, 'a'), uuid, true}), snapshotNotFound,
                "Snapshot no longer exists");
    expectError(client.call(DeleteSnapshot{"com.apple.os.x", uuid, true}), notOurSnapshot,
                "Refusing to delete OS-managed snapshot \"com.apple.os.x\"");
    expectError(client.call(MountSnapshot{"com.apple.os.x", uuid, 1}), notOurSnapshot,
                "Snapshot \"com.apple.os.x\" is a macOS system snapshot, so Quillmark will not mount it.");
    expectError(client.call(MountSnapshot{"a", uuid, 7}), snapshotNotFound, "Snapshot 7 no longer exists on Data");
    const std::string only =
        "Volume \"Vault\" has the APFS Backup role (a backup target such as a Time Machine disk). "
        "Quillmark only displays its snapshots, so it will not ";
    expectError(client.call(DeleteSnapshot{"a", vault, true}), volumeNotAPFSData, only + "delete snapshots.");
    expectError(client.call(MountSnapshot{"a", vault, 1}), volumeNotAPFSData, only + "mount snapshots.");
    expectError(
        client.call(CreateSnapshot{vault, ""}), volumeNotAPFSData,
        "Refusing to create snapshot on volume \"Vault\" (role=Backup). Snapshots may only be created on Data or "
        "unrolled volumes.");
    expectError(client.call(UnmountSnapshot{"/Volumes/Data"}), invalidMountPath,
                "Path must resolve under " + machine.paths.userMountRoot);
    expectError(client.call(UnmountSnapshot{machine.paths.userMountRoot + "/Data@snap-1"}), invalidMountPath,
                "Refusing to unmount a path that is not a read-only APFS snapshot mount");
  });
  EXPECT_THAT(machine.logged(), Contains("createSnapshot failed: Volume UUID is malformed"));
  EXPECT_THAT(machine.names(), IsEmpty());
}

TEST(Commands, coverForeignSnapshotsAsThePolicySaysAndHideTheSystems) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    const std::string uuid = machine.uuid.lower();
    for (const char* name : {":backups:daily", ":backups:weekly", "com.apple.os.update-1"}) machine.addSnapshot(name);
    expectError(client.call(DeleteSnapshot{":backups:daily", uuid, false}), QuillmarkErrorCode::protectedSnapshot,
                "Refusing to delete a protected snapshot. Use Force or unprotect it first.");
    EXPECT_FALSE(client.call(DeleteSnapshot{":backups:daily", uuid, true}).reply.error);
    SchedulePolicy policy = SchedulePolicy::makeDefault().normalized();
    for (const bool covered : {true, false}) {
      policy.protectForeignSnapshots = covered;
      EXPECT_FALSE(client.call(SetSchedule{uuid, json(policy)}).reply.error);
      const auto records = recordsOf(client.call(ListSnapshots{uuid, true, true}));
      ASSERT_EQ(records.size(), 1U);
      EXPECT_EQ(records[0].isProtected, covered);
      EXPECT_EQ(records[0].isAutoProtected, covered);
    }
    EXPECT_FALSE(client.call(DeleteSnapshot{":backups:weekly", uuid, false}).reply.error);
    EXPECT_THAT(machine.names(), ElementsAre("com.apple.os.update-1"));
  });
  EXPECT_THAT(machine.logged(), Contains("listSnapshots OK: 1 visible / 2 raw"));
}

TEST(Commands, leaveAStrangersMountPointAlone) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    const std::string uuid = machine.uuid.lower();
    const std::string a = stringValue(client.call(CreateSnapshot{uuid, "a"}).reply);
    const std::string b = stringValue(client.call(CreateSnapshot{uuid, "b"}).reply);
    const auto records = recordsOf(client.call(ListSnapshots{uuid, false, false}));
    const std::string path =
        machine.paths.userMountRoot + "/Data-" + uuid + "@snap-" + std::to_string(records[0].xid.value);
    ASSERT_TRUE(machine.volumes.mount(machine.uuid, path, b, mntReadOnly));
    expectError(client.call(MountSnapshot{a, uuid, records[0].xid.value}), QuillmarkErrorCode::invalidMountPath,
                "Mount point \"" + path + "\" is already used by another snapshot or volume");
  });
}

TEST(Commands, answerFactsAndDefaults) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    EXPECT_EQ(stringValue(client.call(HelperVersion{}).reply), "1.2.3");
    EXPECT_EQ(stringValue(client.call(HelperGitCommit{}).reply), "unknown");
    EXPECT_EQ(int64Value(client.call(ProtocolVersion{}).reply), 18);
    EXPECT_EQ(decodeJson<SchedulePolicy>(*client.call(GetSchedule{machine.uuid.upper()}).reply.valueJson),
              SchedulePolicy::makeDefault().normalized());
    EXPECT_EQ(client.call(ListSchedules{}).reply.valueJson, "{}");
    EXPECT_EQ(decodeJson<HelperSettings>(*client.call(GetHelperSettings{}).reply.valueJson), HelperSettings());
    const auto health = decodeJson<HelperHealthStatus>(*client.call(HelperHealth{}).reply.valueJson);
    EXPECT_EQ(health.history.state, HelperSubsystemState::healthy);
    EXPECT_EQ(health.generatedAt, machine.simulation.clock().now());
  });
  EXPECT_THAT(machine.logged(), Contains("XPC helperVersion() -> 1.2.3"));
}

TEST(Commands, recordEachAttemptOnceWithWhatIsKnown) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    const std::string uuid = machine.uuid.lower();
    (void)client.call(CreateSnapshot{uuid, "x"});
    (void)client.call(CreateSnapshot{uuid, "a/b"});
    (void)client.call(DeleteSnapshot{ours + ".x", uuid, true});
    (void)client.call(DeleteSnapshot{ours + ".x", uuid, false});
    (void)client.call(UnmountSnapshot{machine.paths.userMountRoot + "/Data-" + uuid + "@snap-77"});
    (void)client.call(ListSnapshots{uuid, false, false});
  });
  const std::vector<HelperEvent> events = machine.events();
  ASSERT_EQ(events.size(), 5U);
  const HelperEvent& made = events[0];
  EXPECT_TRUE(made.succeeded);
  EXPECT_EQ(made.snapshotName, ours + ".x");
  EXPECT_EQ(made.detail, "x");
  EXPECT_EQ(made.volumeName, "Data");
  EXPECT_EQ(made.user, "root");
  EXPECT_EQ(made.client, HelperEvent::Client::cli);
  const HelperEvent& refused = events[1];
  EXPECT_FALSE(refused.succeeded);
  EXPECT_EQ(refused.volumeName, "Data") << "resolved once more for the record";
  EXPECT_EQ(refused.errorMessage, "Label must be 0-127 chars, no slashes, no control chars");
  EXPECT_FALSE(refused.snapshotName);
  EXPECT_EQ(events[2].detail, ours + ".x (force)");
  EXPECT_EQ(events[3].detail, ours + ".x");
  EXPECT_EQ(events[4].volumeName, "Data");
  EXPECT_EQ(events[4].snapshotName, "snap-77");
}

TEST(Commands, keepTheirResultWhenAFollowUpFails) {
  ServiceMachine machine;
  machine.run([&] {
    machine.breakAuditTrail();
    TestClient client = machine.connect();
    const std::string uuid = machine.uuid.lower();
    const RpcIncoming made = client.call(CreateSnapshot{uuid, "x"});
    EXPECT_EQ(stringValue(made.reply), ours + ".x");
    ASSERT_TRUE(made.reply.error);
    EXPECT_TRUE(QuillmarkError::isOperationCompleted(*made.reply.error));
    EXPECT_THAT(
        made.reply.error->description(),
        StartsWith("The createSnapshot operation completed, but Quillmark could not persist its audit record: "));
    const RpcIncoming failed = client.call(DeleteSnapshot{"gone", uuid, true});
    EXPECT_EQ(failed.reply.error->description(), "Snapshot no longer exists") << "nothing of the audit on a failure";
    const auto health = payload<AuditLogHealth>(client.call(GetAuditLogHealth{}));
    EXPECT_EQ(health.failedWriteCount, 2);
    EXPECT_EQ(health.consecutiveFailedWrites, 2);
    EXPECT_EQ(health.lastFailureAt, machine.life.clock().now());
  });
}

TEST(Commands, sayThatANameWasLostBeforeTheySayThatARecordWas) {
  ServiceMachine machine;
  machine.run([&] {
    ASSERT_TRUE(machine.posix.mkdir(machine.paths.state("snapshot-names.json"), 0755));
    TestClient client = machine.connect();
    const std::string uuid = machine.uuid.lower();
    for (const bool isAuditBroken : {false, true}) {
      if (isAuditBroken) machine.breakAuditTrail();
      const RpcIncoming made = client.call(CreateSnapshot{uuid, "y"});
      EXPECT_THAT(stringValue(made.reply), StartsWith(ours + ".y"));
      ASSERT_TRUE(made.reply.error);
      EXPECT_TRUE(QuillmarkError::isOperationCompleted(*made.reply.error));
      EXPECT_THAT(made.reply.error->description(),
                  StartsWith("The snapshot was created, but its name \"y\" could not be saved and will not survive a "
                             "restart: The snapshot-name store is unreadable and will not be overwritten: "));
    }
    EXPECT_FALSE(client.call(CreateSafetySnapshot{uuid, "z"}).reply.error->description().starts_with("The snapshot"))
        << "a safety snapshot has no name to lose";
    EXPECT_FALSE(client.call(ListSnapshots{uuid, false, false}).reply.error);
  });
  EXPECT_THAT(machine.names(), ::testing::SizeIs(3));
}

TEST(Commands, makeSafetySnapshotsThatBearNoName) {
  ServiceMachine machine;
  const Uuid vault = machine.addBackupVolume();
  machine.serve([&](TestClient& client) {
    const std::string uuid = machine.uuid.upper();
    const std::string safety = "com.harrowfern.Quillmark.safety.2026-03-01T09-00-00Z.restore";
    EXPECT_EQ(stringValue(client.call(CreateSafetySnapshot{uuid, "restore"}).reply), safety);
    const std::string manual = stringValue(client.call(CreateSnapshot{uuid, " my name "}).reply);
    EXPECT_FALSE(client.call(CreateSnapshot{uuid, ""}).reply.error);
    const auto records = recordsOf(client.call(ListSnapshots{uuid, false, false}));
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0].displayName, std::nullopt);
    EXPECT_EQ(records[1].displayName, "my name");
    EXPECT_EQ(records[2].displayName, std::nullopt) << "an empty label is none";
    expectError(client.call(CreateSafetySnapshot{vault.lower(), ""}), QuillmarkErrorCode::volumeNotAPFSData,
                "Refusing to create snapshot on volume \"Vault\" (role=Backup).");
    EXPECT_FALSE(client.call(DeleteSnapshot{manual, uuid, false}).reply.error);
    EXPECT_FALSE(machine.helper.environment().names.displayName(VolumeUuid(uuid), manual)) << "it goes with its owner";
  });
  const auto events = machine.events();
  EXPECT_EQ(events[0].kind, HelperEvent::Kind::createSnapshot);
  EXPECT_EQ(events[0].detail, "Safety snapshot (restore); pruned after the retention period");
  EXPECT_THAT(machine.logged(), Contains("createSafetySnapshot failed: Refusing to create snapshot on volume \"Vault\" "
                                         "(role=Backup)."));
}

}  // namespace
}  // namespace quillmark
