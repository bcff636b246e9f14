#include "ServiceMachine.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

using Specs = std::vector<SnapshotDeleteSpec>;
using Outcomes = std::vector<SnapshotNameOutcome>;

std::vector<std::string> detailsOf(const std::vector<HelperEvent>& events) {
  std::vector<std::string> details;
  for (const HelperEvent& event : events) details.push_back((event.succeeded ? "" : "failed: ") + event.detail);
  return details;
}

TEST(BatchDelete, goesOnAfterAFailedItemAndTellsEachOne) {
  ServiceMachine machine;
  const std::string uuid = machine.uuid.upper();
  machine.serve([&](TestClient& client) {
    std::vector<std::string> names;
    for (const char* label : {"a", "b", "c"}) {
      names.push_back(stringValue(client.call(CreateSnapshot{uuid, label}).reply));
    }
    machine.addSnapshot("foreign");
    EXPECT_FALSE(client.call(SetProtected{names[0], uuid, true}).reply.error);
    EXPECT_FALSE(client.call(SetProtected{names[1], uuid, true}).reply.error);
    client.listen(1s);
    client.pushes.clear();
    const std::string isProtected = "Refusing to delete a protected snapshot. Use Force or unprotect it first.";
    const Specs specs{{names[0], false},  {names[1], true}, {names[2], false},       {names[2], false},
                      {"foreign", false}, {"a/b", true},    {"com.apple.os.x", true}};
    EXPECT_THAT(
        payload<Outcomes>(client.call(DeleteSnapshots{json(specs), uuid})),
        ElementsAre(
            SnapshotNameOutcome{names[0], isProtected, {}}, SnapshotNameOutcome{names[1], {}, {}},
            SnapshotNameOutcome{names[2], {}, {}}, SnapshotNameOutcome{names[2], "Snapshot no longer exists", {}},
            SnapshotNameOutcome{"foreign", isProtected, {}},
            SnapshotNameOutcome{"a/b", "Snapshot name is malformed", {}},
            SnapshotNameOutcome{"com.apple.os.x", "Refusing to delete OS-managed snapshot \"com.apple.os.x\"", {}}));
    client.listen(1s);
    EXPECT_THAT(client.pushes, SizeIs(1)) << "one change notice for the batch";
    EXPECT_THAT(machine.names(), ElementsAre(names[0], "foreign"));
    EXPECT_THAT(machine.logged(), Contains("XPC deleteSnapshots(volume=" + uuid + ", count=7)"));
    EXPECT_THAT(machine.logged(), Contains("deleteSnapshot OK: " + names[1]));
    EXPECT_THAT(machine.logged(), Contains("deleteSnapshots item failed (" + names[0] + "): " + isProtected));
    auto events = machine.events();
    events.erase(events.begin(), events.begin() + 5);
    EXPECT_THAT(detailsOf(events),
                ElementsAre("failed: " + names[0], names[1] + " (force)", names[2], "failed: " + names[2],
                            "failed: foreign", "failed: a/b", "failed: com.apple.os.x"));
    for (const HelperEvent& event : events) EXPECT_EQ(event.volumeName, "Data");
  });
}

TEST(BatchDelete, failsWholeWhenTheRequestOrTheVolumeCanNotServe) {
  ServiceMachine machine;
  const std::string vault = machine.addBackupVolume().lower(), uuid = machine.uuid.lower();
  const std::string unknown = "ffffffff-4455-6677-8899-aabbccddeeff";
  machine.serve([&](TestClient& client) {
    machine.addSnapshot("a");
    using enum QuillmarkErrorCode;
    const JsonArgument specs = json(Specs{{"a", true}});
    expectError(client.call(DeleteSnapshots{specs, "x"}), invalidVolumeUUID, "Volume UUID is malformed");
    expectError(client.call(DeleteSnapshots{specs, unknown}), volumeNotFound,
                "No mounted APFS volume with UUID " + unknown);
    expectError(
        client.call(DeleteSnapshots{specs, vault}), volumeNotAPFSData,
        "Volume \"Vault\" has the APFS Backup role (a backup target such as a Time Machine disk). Quillmark only "
        "displays its snapshots, so it will not delete snapshots.");
    const RpcIncoming undecoded = client.call(DeleteSnapshots{{R"([{"name":7}])", 12}, uuid});
    EXPECT_TRUE(undecoded.reply.error && !undecoded.reply.valueJson);
    EXPECT_THAT(machine.logged(), Contains(StartsWith("deleteSnapshots failed: ")));
    EXPECT_FALSE(machine.helper.environment().mutations.isOpen(vault));
    EXPECT_EQ(client.call(DeleteSnapshots{json(Specs()), uuid}).reply.valueJson, "[]");
  });
  EXPECT_THAT(machine.names(), ElementsAre("a"));
  EXPECT_THAT(machine.events(), IsEmpty()) << "no snapshot was touched";
}

TEST(Batches, keepTheirItemsAndTheTextsOfTheirRecordsWithinBounds) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    const std::string refusal = "A batch holds at most 10000 items.";
    using enum QuillmarkErrorCode;
    const JsonArgument specs = json(Specs(10'001, {"a", true}));
    expectError(client.call(DeleteSnapshots{specs, machine.uuid.lower()}), internalError, refusal);
    expectError(client.call(UnmountSnapshots{std::vector<std::string>(10'001, "/")}), internalError, refusal);
    EXPECT_THAT(machine.events(), IsEmpty());
    (void)client.call(UnmountSnapshots{{"/" + std::string(100'000, 'x')}});
    (void)client.call(DeleteSnapshot{std::string(100'000, 'n'), std::string(100'000, 'u'), true});
    const auto events = machine.events();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].detail, "/" + std::string(511, 'x') + "...");
    EXPECT_EQ(events[1].snapshotName, std::string(512, 'n') + "...");
    EXPECT_EQ(events[1].volumeUUID, std::string(512, 'u') + "...");
  });
}

TEST(BatchDelete, warnsOfARecordThatCouldNotBeStored) {
  ServiceMachine machine;
  machine.run([&] {
    machine.breakAuditTrail();
    machine.addSnapshot("a");
    TestClient client = machine.connect();
    const auto outcomes =
        payload<Outcomes>(client.call(DeleteSnapshots{json(Specs{{"a", true}, {"b", true}}), machine.uuid.lower()}));
    ASSERT_EQ(outcomes.size(), 2U);
    EXPECT_FALSE(outcomes[0].error);
    EXPECT_THAT(
        outcomes[0].auditWarning.value_or(""),
        StartsWith("The deleteSnapshot operation completed, but Quillmark could not persist its audit record: "));
    EXPECT_EQ(outcomes[1].error, "Snapshot no longer exists");
    EXPECT_FALSE(outcomes[1].auditWarning);
  });
}

TEST(BatchDelete, leavesTheNoticeToTheLastBatchOnTheVolume) {
  ServiceMachine machine;
  for (const char* name : {"a", "b", "c"}) machine.addSnapshot(name);
  machine.serve([&](TestClient& client) {
    TestClient idle = machine.connect();
    SnapshotMutationScope& scope = machine.helper.environment().mutations;
    scope.enter(machine.uuid.upper());  // another batch
    (void)client.call(DeleteSnapshots{json(Specs{{"a", true}, {"b", true}}), machine.uuid.lower()});
    (void)client.call(DeleteSnapshot{"c", machine.uuid.lower(), true});
    idle.listen(1s);
    EXPECT_THAT(idle.pushes, IsEmpty()) << "the volume is still in a batch";
    EXPECT_TRUE(scope.leave(machine.uuid.lower()));
    (void)client.call(DeleteSnapshots{json(Specs{{"gone", true}}), machine.uuid.upper()});
    idle.listen(1s);
    EXPECT_THAT(idle.pushes, ElementsAre(HasSubstr(machine.uuid.lower())));
  });
}

struct Mounts {
  ServiceMachine machine;
  const std::string uuid = machine.uuid.lower();
  const Xid a = machine.addSnapshot("a"), b = machine.addSnapshot("b");
  [[nodiscard]] std::string pathOf(Xid xid) const {
    return machine.paths.userMountRoot + "/Data-" + uuid + "@snap-" + std::to_string(xid.value);
  }
};

TEST(BatchMount, answersAPathOrAnErrorForEachAndRecordsNewMountsOnly) {
  Mounts mounts;
  ServiceMachine& machine = mounts.machine;
  const std::string vault = machine.addBackupVolume().upper();
  machine.serve([&](TestClient& client) {
    const std::string path = stringValue(client.call(MountSnapshot{"a", mounts.uuid, mounts.a.value}).reply);
    const std::vector<SnapshotMountSpec> specs{{"a", mounts.uuid, mounts.a},
                                               {"b", mounts.uuid, mounts.b},
                                               {"b", mounts.uuid, Xid{7}},
                                               {"b", "x", Xid{8}},
                                               {"com.apple.os.x", mounts.uuid, Xid{9}},
                                               {"b", vault, Xid{10}}};
    const auto outcomes = payload<std::vector<SnapshotMountOutcome>>(client.call(MountSnapshots{json(specs)}));
    ASSERT_EQ(outcomes.size(), specs.size());
    EXPECT_EQ(outcomes[0], (SnapshotMountOutcome{mounts.a, path, {}}));
    EXPECT_EQ(outcomes[1], (SnapshotMountOutcome{mounts.b, mounts.pathOf(mounts.b), {}}));
    EXPECT_EQ(outcomes[2].xid, Xid{7});
    EXPECT_THAT(outcomes[2].error.value_or(""), StartsWith("fs_snapshot_mount failed: ")) << "the kernel's word alone";
    EXPECT_EQ(outcomes[3].error, "Volume UUID is malformed");
    EXPECT_EQ(outcomes[4].error,
              "Snapshot \"com.apple.os.x\" is a macOS system snapshot, so Quillmark will not mount it.");
    EXPECT_THAT(outcomes[5].error.value_or(""), HasSubstr("it will not mount snapshots."));
    EXPECT_TRUE(client.call(MountSnapshots{{"{}", 2}}).reply.error);
  });
  EXPECT_THAT(detailsOf(machine.events()),
              ElementsAre("Mounted at " + mounts.pathOf(mounts.a), "Mounted at " + mounts.pathOf(mounts.b), "failed: b",
                          "failed: b", "failed: com.apple.os.x", "failed: b"));
  EXPECT_THAT(machine.logged(), Contains("XPC mountSnapshots(count=6)"));
  EXPECT_THAT(machine.logged(), Contains("mountSnapshots item failed (b): Volume UUID is malformed"));
  EXPECT_THAT(machine.logged(), Contains(StartsWith("mountSnapshots failed: ")));
}

TEST(BatchUnmount, answersForEachPathAndKnowsWhoseItWas) {
  Mounts mounts;
  ServiceMachine& machine = mounts.machine;
  machine.serve([&](TestClient& client) {
    const std::string path = stringValue(client.call(MountSnapshot{"a", mounts.uuid, mounts.a.value}).reply);
    const auto outcomes = payload<std::vector<SnapshotPathOutcome>>(
        client.call(UnmountSnapshots{{path, path, "/Volumes/Data", mounts.pathOf(Xid{77})}}));
    const std::string refusal = "Refusing to unmount a path that is not a read-only APFS snapshot mount";
    EXPECT_THAT(outcomes, ElementsAre(SnapshotPathOutcome{path, {}}, SnapshotPathOutcome{path, refusal},
                                      SnapshotPathOutcome{"/Volumes/Data",
                                                          "Path must resolve under " + machine.paths.userMountRoot},
                                      SnapshotPathOutcome{mounts.pathOf(Xid{77}), refusal}));
    EXPECT_THAT(machine.volumes.mounts(), IsEmpty());
    auto events = machine.events();
    EXPECT_THAT(detailsOf(events), ElementsAre("Mounted at " + path, "Unmounted " + path, "failed: " + path,
                                               "failed: /Volumes/Data", "failed: " + mounts.pathOf(Xid{77})));
    ASSERT_EQ(events.size(), 5U);
    EXPECT_EQ(events[1].snapshotName, "a");
    EXPECT_EQ(VolumeUuid(events[1].volumeUUID), VolumeUuid(mounts.uuid));
    EXPECT_EQ(events[3].volumeName, "");
    EXPECT_FALSE(events[3].snapshotName);
    EXPECT_EQ(events[4].snapshotName, "snap-77");
    EXPECT_EQ(events[4].volumeUUID, "");
    EXPECT_EQ(events[4].volumeName, "Data");
  });
  EXPECT_THAT(machine.logged(), Contains("XPC unmountSnapshots(count=4)"));
  EXPECT_THAT(machine.logged(), Contains("unmountSnapshot OK: " + mounts.pathOf(mounts.a)));
}

TEST(MountPins, keepAMountUntilTheyEnd) {
  Mounts mounts;
  ServiceMachine& machine = mounts.machine;
  machine.serve([&](TestClient& client) {
    TestClient other = machine.connect();
    const std::string path = stringValue(client.call(MountSnapshot{"a", mounts.uuid, mounts.a.value}).reply);
    const std::string token = stringValue(client.call(PinSnapshotMounts{{path}, "a window", std::nullopt}).reply);
    const std::string inUse =
        "This snapshot is in use: a window. Close the window using it (or wait for the operation to finish), then try "
        "again.";
    expectError(other.call(UnmountSnapshot{path}), QuillmarkErrorCode::snapshotInUse, inUse);
    EXPECT_EQ(payload<std::vector<SnapshotPathOutcome>>(other.call(UnmountSnapshots{{path}}))[0].error, inUse);
    EXPECT_FALSE(client.call(UnpinSnapshotMounts{token}).reply.error);
    EXPECT_FALSE(client.call(UnpinSnapshotMounts{token}).reply.error) << "an unknown token is fine";
    EXPECT_FALSE(other.call(UnmountSnapshot{path}).reply.error);
  });
}

TEST(MountPins, acceptOneToSixteenPathsOfOursAndAShortReason) {
  Mounts mounts;
  ServiceMachine& machine = mounts.machine;
  using enum QuillmarkErrorCode;
  const std::string path = mounts.pathOf(mounts.a), tooMuch = "Pin request must cover 1-16 paths with a short reason";
  const std::string elsewhere = "Pin path must resolve under " + machine.paths.userMountRoot;
  std::string reason;
  for (int i = 0; i < 200; ++i) reason += "\xC3\xBC";
  machine.serve([&](TestClient& client) {
    const auto pin = [&](std::vector<std::string> paths, const std::string& why) {
      return client.call(PinSnapshotMounts{std::move(paths), why, std::nullopt});
    };
    EXPECT_FALSE(pin(std::vector(16, path), reason).reply.error);
    expectError(pin(std::vector(17, path), ""), internalError, tooMuch);
    expectError(pin({path}, reason + "!"), internalError, tooMuch);
    expectError(pin({}, ""), internalError, tooMuch);
    auto mixed = std::vector(17, path);
    mixed[16] = "/Volumes/Data";
    expectError(pin(mixed, ""), invalidMountPath, elsewhere);
    expectError(pin({machine.paths.userMountRoot + "/a@snap-" + std::string(300, '1')}, ""), invalidMountPath,
                elsewhere);
  });
}

}  // namespace
}  // namespace quillmark
