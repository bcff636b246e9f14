#include "ServiceMachine.h"
#include "platform/Files.h"

namespace quillmark {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const std::string ours = "com.harrowfern.Quillmark.manual.2026-03-01T09-00-00Z";
const std::string isProtectedText = "Refusing to delete a protected snapshot. Use Force or unprotect it first.";

SnapshotRecord only(TestClient& client, const std::string& uuid) {
  const auto records = payload<std::vector<SnapshotRecord>>(client.call(ListSnapshots{uuid, false, false}));
  EXPECT_EQ(records.size(), 1U);
  return records.empty() ? SnapshotRecord() : records[0];
}

TEST(ProtectionCommands, keepASnapshotUntilItIsForcedOrUnprotected) {
  for (const int refusal : {0, ENOTSUP}) {  // the volume takes attributes, or doesn't
    ServiceMachine machine;
    machine.sim.attributes().refuseChanges(machine.uuid, refusal);
    machine.run([&] {
      TestClient client = machine.connect(), other = machine.connect();
      const std::string uuid = machine.uuid.upper();
      const std::string name = stringValue(client.call(CreateSnapshot{uuid, ""}).reply);
      EXPECT_FALSE(client.call(SetProtected{name, uuid, true}).reply.error);
      EXPECT_TRUE(only(client, uuid).isProtected);
      EXPECT_FALSE(only(client, uuid).isAutoProtected);
      expectError(other.call(DeleteSnapshot{name, machine.uuid.lower(), false}), QuillmarkErrorCode::protectedSnapshot,
                  isProtectedText);
      EXPECT_FALSE(client.call(SetProtected{name, uuid, false}).reply.error);
      EXPECT_FALSE(client.call(SetProtected{name, uuid, true}).reply.error);
      EXPECT_FALSE(other.call(DeleteSnapshot{name, uuid, true}).reply.error);
      const VolumeInfo volume = machine.helper.environment().apfs.resolveVolume(uuid);
      EXPECT_THAT(machine.helper.environment().protection.protectedXIDs(volume), IsEmpty()) << "gone with its owner";
    });
    EXPECT_THAT(machine.names(), IsEmpty());
    std::vector<std::string> details;
    for (const HelperEvent& event : machine.events()) {
      if (event.kind == HelperEvent::Kind::setProtection) details.push_back(event.detail);
    }
    EXPECT_THAT(details, ElementsAre("protected", "unprotected", "protected"));
  }
}

TEST(ProtectionCommands, tagASnapshotAndClearItsTag) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    const std::string uuid = machine.uuid.lower();
    machine.addSnapshot("foreign");
    EXPECT_FALSE(client.call(SetSnapshotTag{"foreign", uuid, "gr\xC3\xBCn"}).reply.error);
    EXPECT_EQ(only(client, uuid).tag, "gr\xC3\xBCn");
    expectError(client.call(SetSnapshotTag{"foreign", uuid, std::string(8193, 't')}), QuillmarkErrorCode::internalError,
                "Tag is too large (8193 bytes; limit 8192).");
    EXPECT_FALSE(client.call(SetSnapshotTag{"foreign", uuid, ""}).reply.error);
    EXPECT_EQ(only(client, uuid).tag, std::nullopt);
    EXPECT_FALSE(client.call(SetSnapshotTag{"foreign", uuid, "x"}).reply.error);
    EXPECT_FALSE(client.call(DeleteSnapshot{"foreign", uuid, true}).reply.error);
    const VolumeInfo volume = machine.helper.environment().apfs.resolveVolume(uuid);
    EXPECT_TRUE(machine.helper.environment().tags.tags(volume).empty()) << "a tag goes with its snapshot";
  });
  const auto events = machine.events();
  ASSERT_EQ(events.size(), 5U);
  EXPECT_EQ(events[0].detail, "tag set (5 bytes)");
  EXPECT_EQ(events[0].kind, HelperEvent::Kind::setTag);
  EXPECT_EQ(events[1].detail, "tag change failed");
  EXPECT_FALSE(events[1].succeeded);
  EXPECT_EQ(events[2].detail, "tag cleared");
  EXPECT_THAT(machine.logged(), Contains("setSnapshotTag failed: Tag is too large (8193 bytes; limit 8192)."));
}

TEST(ProtectionCommands, refuseInTheOrderOfTheirSteps) {
  ServiceMachine machine;
  const std::string vault = machine.addBackupVolume().lower(), uuid = machine.uuid.lower();
  const std::string backup =
      "Volume \"Vault\" has the APFS Backup role (a backup target such as a Time Machine disk). Quillmark only "
      "displays "
      "its snapshots, so it will not ";
  const std::string os = "com.apple.os.x";
  machine.serve([&](TestClient& client) {
    machine.addSnapshot(os);
    using enum QuillmarkErrorCode;
    struct Case {
      std::string name, volume;
      QuillmarkErrorCode code;
      std::string protection, tag;
    };
    const Case cases[] = {
        {"", "x", invalidVolumeUUID, "Volume UUID is malformed", "Volume UUID is malformed"},
        {"a/b", vault, invalidSnapshotUUID, "Snapshot name is malformed", "Snapshot name is malformed"},
        {"gone", vault, volumeNotAPFSData, backup + "change snapshot protection.", backup + "tag a snapshot."},
        {"gone", uuid, snapshotNotFound, "Snapshot disappeared before its protection state could be changed",
         "Snapshot disappeared before its tag could be changed"},
    };
    for (const Case& refused : cases) {
      for (const bool value : {true, false}) {
        expectError(client.call(SetProtected{refused.name, refused.volume, value}), refused.code, refused.protection);
      }
      expectError(client.call(SetSnapshotTag{refused.name, refused.volume, "t"}), refused.code, refused.tag);
      EXPECT_THAT(machine.logged(), Contains("setProtected failed: " + refused.protection));
      EXPECT_THAT(machine.logged(), Contains("setSnapshotTag failed: " + refused.tag));
    }
    expectError(client.call(SetProtected{os, vault, true}), notOurSnapshot,
                "Cannot toggle protection on OS-managed snapshot \"" + os + "\"");
    EXPECT_FALSE(client.call(SetSnapshotTag{os, uuid, "t"}).reply.error) << "tags are for all";
  });
  for (const HelperEvent& event : machine.events()) {
    if (event.succeeded) continue;
    const bool isTag = event.kind == HelperEvent::Kind::setTag;
    EXPECT_THAT(event.detail, ::testing::AnyOf("protected", "unprotected", "tag change failed"));
    EXPECT_EQ(event.detail == "tag change failed", isTag);
  }
}

// Where protection can't be known, nothing is deleted, by nobody and not by force.
TEST(ProtectionCommands, deleteNothingWhileTheStoreCanNotBeRead) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    const std::string uuid = machine.uuid.lower(), broken = "Protection store exists but is unreadable: ";
    machine.addSnapshot("a");
    writeAtomically(machine.posix, machine.life.random(), machine.paths.state("protected.json"), "{", 0600);
    const RpcIncoming single = client.call(DeleteSnapshot{"a", uuid, true});
    EXPECT_THAT(single.reply.error->description(), StartsWith(broken));
    const auto batch = payload<std::vector<SnapshotNameOutcome>>(
        client.call(DeleteSnapshots{json(std::vector<SnapshotDeleteSpec>{{"a", true}}), uuid}));
    ASSERT_EQ(batch.size(), 1U);
    EXPECT_THAT(batch[0].error.value_or(""), StartsWith(broken));
    EXPECT_THAT(client.call(SetProtected{"a", uuid, true}).reply.error->description(), StartsWith(broken));
    EXPECT_EQ(client.call(ListSnapshots{uuid, false, false}).reply.error->description(),
              single.reply.error->description());
    const auto health = payload<HelperHealthStatus>(client.call(HelperHealth{}));
    EXPECT_EQ(health.protection.state, HelperSubsystemState::unavailable);
    EXPECT_EQ(health.protection.detail, single.reply.error->description());
    EXPECT_TRUE(HealthMonitor::automaticDeletionBlocked(health));
  });
  EXPECT_THAT(machine.names(), ElementsAre("a"));
}

}  // namespace
}  // namespace quillmark
