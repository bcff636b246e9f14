#include "ServiceMachine.h"
#include "platform/Files.h"
#include "scheduling/rules/SchedulePolicy.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;
using sim::DirectoryCall;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* progressPush = "indexProgressWithVolumeUUID";

// A client on a machine whose snapshots are indexed while it listens.
class HistoryCommands : public testing::Test {
 protected:
  std::vector<SnapshotRecord> listing(TestClient& client) {
    return payload<std::vector<SnapshotRecord>>(client.call(ListSnapshots{uuid_, false, false}));
  }
  std::vector<Xid> indexed(TestClient& client) { return payload<std::vector<Xid>>(client.call(IndexedXIDs{uuid_})); }
  std::string create(TestClient& client, const std::string& label) {
    return stringValue(client.call(CreateSnapshot{uuid_, label}).reply);
  }
  [[nodiscard]] HelperSubsystemHealth health(TestClient& client) {
    return payload<HelperHealthStatus>(client.call(HelperHealth{})).history;
  }
  // Each scan takes so long, of which it notices nothing itself.
  void slowScans(std::chrono::nanoseconds duration) {
    machine_.sim.directories().watchCalls([this, duration](DirectoryCall call, const std::string&) {
      if (call == DirectoryCall::openTree) sleepFor(machine_.life.dispatch(), duration);
    });
  }

  ServiceMachine machine_;
  const std::string uuid_ = machine_.uuid.upper();
};

TEST_F(HistoryCommands, tellWhatIsIndexedAndIndexItAnew) {
  machine_.serve([&](TestClient& client) {
    EXPECT_THAT(indexed(client), IsEmpty());
    create(client, "one");
    create(client, "two");
    client.listen(2s);
    const auto snapshots = listing(client);
    ASSERT_THAT(snapshots, SizeIs(2));
    const std::vector<Xid> both = indexed(client);
    EXPECT_THAT(both, ElementsAre(snapshots[0].xid, snapshots[1].xid));
    EXPECT_TRUE(snapshots[0].isIndexed && snapshots[1].isIndexed);

    EXPECT_FALSE(client.call(ReindexSnapshot{uuid_, both[1].value}).reply.error);
    client.listen(2s);
    EXPECT_EQ(indexed(client), both);
    EXPECT_FALSE(client.call(ReindexVolume{uuid_}).reply.error);
    EXPECT_EQ(indexed(client), both) << "answered when it is done";
    EXPECT_FALSE(client.call(ReindexAllVolumes{}).reply.error);
    client.listen(2s);
    EXPECT_EQ(indexed(client), both);
  });
  EXPECT_THAT(machine_.logged(), Contains("XPC reindexVolume(" + uuid_ + ")"));
}

TEST_F(HistoryCommands, refuseWhatIsMalformedUnknownOrNotTheirs) {
  const std::string backup = machine_.addBackupVolume().lower();
  const std::string malformed = "Volume UUID is malformed";
  machine_.serve([&](TestClient& client) {
    expectError(client.call(IndexedXIDs{"x"}), QuillmarkErrorCode::invalidVolumeUUID, malformed);
    expectError(client.call(ReindexVolume{"x"}), QuillmarkErrorCode::invalidVolumeUUID, malformed);
    expectError(client.call(ReindexSnapshot{"x", 1}), QuillmarkErrorCode::invalidVolumeUUID, malformed);
    const auto unknown = client.call(ReindexVolume{"11111111-2222-3333-4444-555555555555"});
    EXPECT_EQ(unknown.reply.error->code(), static_cast<long>(QuillmarkErrorCode::volumeNotFound));
    const auto backupRefused = client.call(ReindexVolume{backup});
    EXPECT_EQ(backupRefused.reply.error->code(), static_cast<long>(QuillmarkErrorCode::volumeNotAPFSData));
    EXPECT_THAT(backupRefused.reply.error->description(), HasSubstr("so it will not index snapshots."));
    const auto gone = client.call(ReindexSnapshot{uuid_, 7});
    EXPECT_EQ(gone.reply.error->domain(), "Quillmark.SnapshotHistory");
    EXPECT_EQ(gone.reply.error->description(), "Snapshot no longer exists on this volume");
  });
  EXPECT_THAT(machine_.logged(), Contains("reindexSnapshot failed: Snapshot no longer exists on this volume"));
}

TEST_F(HistoryCommands, beginNothingWhileTheHelperDrains) {
  Semaphore release(machine_.life.dispatch());
  machine_.holdCreations(release);
  machine_.serve([&](TestClient& client) {
    client.send(CreateSnapshot{uuid_, "long"});
    (void)client.call(ProtocolVersion{});
    machine_.helper.requestQuit();
    const auto expectRefused = [&](const auto& call) {
      expectError(client.call(call), QuillmarkErrorCode::helperRestarting,
                  "Quillmark helper is restarting; try again in a moment.");
    };
    expectRefused(ReindexVolume{uuid_});
    expectRefused(ReindexAllVolumes{});
    expectRefused(ReindexSnapshot{uuid_, 1});
    EXPECT_THAT(indexed(client), IsEmpty()) << "questions are answered";
    release.signal();
  });
}

TEST_F(HistoryCommands, sayThatThereIsNoHistoryAndTheRestGoesOn) {
  createDirectories(machine_.posix, machine_.paths.state("history.sqlite3"), 0700);
  machine_.serve([&](TestClient& client) {
    create(client, "all the same");
    const auto snapshots = listing(client);
    ASSERT_THAT(snapshots, SizeIs(1));
    EXPECT_FALSE(snapshots[0].isIndexed);
    EXPECT_THAT(indexed(client), IsEmpty());
    const auto expectUnavailable = [&](const auto& call) {
      expectError(client.call(call), QuillmarkErrorCode::internalError, "Snapshot history is unavailable");
    };
    expectUnavailable(ReindexVolume{uuid_});
    expectUnavailable(ReindexAllVolumes{});
    expectUnavailable(ReindexSnapshot{uuid_, 1});
    EXPECT_FALSE(client.call(DeleteSnapshot{snapshots[0].name, uuid_, false}).reply.error);
    EXPECT_EQ(stringValue(client.call(HelperVersion{}).reply), "1.2.3");
    EXPECT_EQ(health(client).state, HelperSubsystemState::unavailable);
    EXPECT_EQ(health(client).detail, machine_.helper.environment().historyFailureDescription);
  });
  EXPECT_THAT(machine_.logged(),
              Contains(HasSubstr("Snapshot history is unavailable; snapshot management will continue "
                                 "without diff/index support: ")));
}

TEST_F(HistoryCommands, tellProgressToAllAndReplayItToWhoeverAsksForTheVersion) {
  slowScans(10s);
  machine_.serve([&](TestClient& client) {
    create(client, "slow");
    client.listen(1s);
    const std::string under_way =
        "[\"" + machine_.uuid.lower() + "\"," + std::to_string(listing(client)[0].xid.value) + ",\"indexing\",0]";
    EXPECT_THAT(client.pushed(progressPush), ElementsAre(HasSubstr(under_way)));
    TestClient late = machine_.connect();
    EXPECT_FALSE(late.call(HelperVersion{}).reply.error);
    EXPECT_THAT(late.pushes, ElementsAre(HasSubstr(under_way))) << "before the answer";
    EXPECT_THAT(client.pushed(progressPush), SizeIs(1)) << "nobody else is told again";
    client.listen(20s);
    EXPECT_THAT(client.pushed(progressPush).back(), HasSubstr(",0,\"done\",0]"));
    TestClient last = machine_.connect();
    (void)last.call(HelperVersion{});
    EXPECT_THAT(last.pushes, IsEmpty());
  });
}

// Goal: indexing keeps nobody from deleting, mounting and unmounting the snapshot that is being read, and goes on after.
TEST_F(HistoryCommands, giveASnapshotToWhoeverWantsItForHimself) {
  slowScans(2s);
  machine_.serve([&](TestClient& client) {
    const std::string doomed = create(client, "doomed");
    const std::string wanted = create(client, "wanted");
    client.listen(1s);
    EXPECT_THAT(machine_.volumes.mounts(), SizeIs(1)) << "it is being read";
    EXPECT_FALSE(client.call(DeleteSnapshot{doomed, uuid_, false}).reply.error);
    client.listen(500ms);
    const Xid xid = listing(client)[0].xid;
    const auto mounted = client.call(MountSnapshot{wanted, uuid_, xid.value});
    ASSERT_FALSE(mounted.reply.error) << mounted.reply.error->description();
    client.listen(500ms);
    EXPECT_FALSE(client.call(UnmountSnapshot{stringValue(mounted.reply)}).reply.error);
    client.listen(5s);
    EXPECT_THAT(indexed(client), ElementsAre(xid));
    EXPECT_THAT(machine_.volumes.mounts(), IsEmpty());
  });
}

TEST_F(HistoryCommands, waitNoLongerThanSecondsForAScanThatDoesNotEnd) {
  slowScans(60s);
  machine_.serve([&](TestClient& client) {
    const std::string name = create(client, "stuck");
    client.listen(1s);
    const auto refused = client.call(DeleteSnapshot{name, uuid_, false});
    ASSERT_TRUE(refused.reply.error);
    EXPECT_EQ(refused.reply.error->code(), static_cast<long>(QuillmarkErrorCode::snapshotDeleteFailed));
    EXPECT_THAT(machine_.names(), ElementsAre(name));
    client.listen(90s);
    EXPECT_THAT(indexed(client), SizeIs(1)) << "it began anew";
  });
}

TEST_F(HistoryCommands, forgetTheFailureOfAVolumeThatIsNoLongerTracked) {
  machine_.sim.directories().watchCalls([](DirectoryCall call, const std::string&) {
    if (call == DirectoryCall::openTree) throw Error("POSIX", EIO, "the disk is bad");
  });
  machine_.serve([&](TestClient& client) {
    create(client, "unreadable");
    client.listen(2s);
    EXPECT_EQ(health(client).state, HelperSubsystemState::degraded);
    EXPECT_THAT(health(client).detail, testing::Optional(HasSubstr("[" + uuid_ + "]")));
    SchedulePolicy policy = machine_.helper.environment().persistence.policy(VolumeUuid(uuid_));
    policy.tracked = false;
    EXPECT_FALSE(client.call(SetSchedule{uuid_, json(policy)}).reply.error);
    EXPECT_EQ(health(client).state, HelperSubsystemState::healthy);
  });
}

TEST_F(HistoryCommands, lookForWorkOnAVolumeThatComesBack) {
  machine_.serve([&](TestClient& client) {
    create(client, "one");
    client.listen(30s);
    const sim::SimVolume volume = machine_.volumes.volumes().front();
    machine_.volumes.take(machine_.uuid);
    client.listen(2s);
    machine_.volumes.add(volume);
    machine_.addSnapshot("com.harrowfern.Quillmark.manual.2026-03-01T10-00-00Z.made-elsewhere");
    client.listen(20s);
    EXPECT_THAT(indexed(client), SizeIs(2)) << "within seconds, not with the hour";
  });
}

}  // namespace
}  // namespace quillmark
