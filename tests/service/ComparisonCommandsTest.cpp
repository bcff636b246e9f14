#include <fmt/format.h>

#include <fstream>

#include "ServiceMachine.h"
#include "wire/DiffResult.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr std::uint32_t anna = 1000;

// "+/new -/old ~/changed ↻/other-type >/to", by path.
std::string textOf(const DiffResult& result) {
  static constexpr std::array<std::string_view, 5> signs{"+", "-", "~", "↻", ">"};
  std::string text;
  for (const DiffResult::Row& row : result.rows) {
    if (row.type == DiffResult::EntryType::directory && row.kind == DiffResult::ChangeKind::modified) continue;
    text += (text.empty() ? "" : " ") + std::string(signs[static_cast<std::size_t>(row.kind)]) + row.path;
  }
  return text;
}

DiffResult resultAt(const std::string& path) {
  std::ifstream file(path);
  return readDiffResult(std::string(std::istreambuf_iterator<char>(file), {}));
}

// A volume with two snapshots between which there was a change of each kind.
class ComparisonCommands : public testing::Test {
 protected:
  void change(FunctionRef<void(sim::SimTree&)> work) {
    machine_.volumes.change(machine_.uuid, [&](sim::SimVolume& volume) { work(volume.tree); });
  }
  void run(FunctionRef<void(TestClient&)> body) {
    machine_.run([&] {
      TestClient client = machine_.connect();
      change([](sim::SimTree& tree) {
        for (const char* path : {"/a/gone", "/a/edited", "/a/other", "/b/from", "/ab"}) tree.write(path, 10);
      });
      (void)client.call(CreateSnapshot{uuid_, "one"});
      change([](sim::SimTree& tree) {
        tree.write("/a/new", 5);
        tree.remove("/a/gone");
        tree.write("/a/edited", 20);
        tree.remove("/a/other");
        tree.makeDirectory("/a/other");
        tree.rename("/b/from", "/b/to");
        tree.write("/ab", 11);
      });
      (void)client.call(CreateSnapshot{uuid_, "two"});
      client.listen(5s);
      snapshots_ = payload<std::vector<SnapshotRecord>>(client.call(ListSnapshots{uuid_, false, false}));
      ASSERT_THAT(snapshots_, SizeIs(2));
      body(client);
    });
  }
  [[nodiscard]] DiffSnapshots diff() const {
    return {.volumeUUID = uuid_,
            .xidA = snapshots_[0].xid.value,
            .nameA = snapshots_[0].name,
            .xidB = snapshots_[1].xid.value,
            .nameB = snapshots_[1].name};
  }
  [[nodiscard]] CompareSubtree subtree(const std::string& path) const {
    return {uuid_, path, snapshots_[0].xid.value, snapshots_[1].xid.value};
  }
  [[nodiscard]] std::vector<HelperEvent> comparisons() {
    std::vector<HelperEvent> events = machine_.events();
    std::erase_if(events, [](const HelperEvent& event) { return event.kind != HelperEvent::Kind::diffSnapshots; });
    return events;
  }
  TestClient connectAnna() {
    const PeerCredentials peer{.uid = anna, .gid = 100, .groups = {27}, .pid = 43};
    machine_.sim.peers().set(peer.pid, {.token = sim::SimPeerIdentities::usualToken(peer), .user = anna});
    return machine_.connect(peer);
  }
  // What the machine's rights let nobody but root do there.
  void forbid(const std::string& path) {
    machine_.sim.threadIdentities().put(path, {.allows = [](const UserIdentity&, unsigned) { return false; }});
  }

  ServiceMachine machine_;
  const std::string uuid_ = machine_.uuid.upper();
  std::vector<SnapshotRecord> snapshots_;
};

constexpr const char* allOfIt = "~/a/edited -/a/gone +/a/new ↻/a/other ~/ab >/b/to";

TEST_F(ComparisonCommands, writeTheirResultIntoAFileAndTellItOnceOnRecord) {
  run([&](TestClient& client) {
    const DiffSnapshots asked = diff();
    const std::string path = stringValue(client.call(asked).reply);
    EXPECT_EQ(path, fmt::format("{}/diff-cache/uid-0/{}/{}-{}-rows.qmdiff", machine_.paths.sharedDirectory,
                                machine_.uuid.lower(), asked.xidA, asked.xidB));
    const DiffResult result = resultAt(path);
    EXPECT_EQ(textOf(result), allOfIt);
    EXPECT_EQ(result.volumeUUID, uuid_);
    EXPECT_FALSE(result.truncated);
    EXPECT_THAT(result.treeEntries, IsEmpty());

    ASSERT_THAT(comparisons(), SizeIs(1));
    const HelperEvent event = comparisons()[0];
    EXPECT_TRUE(event.succeeded);
    EXPECT_EQ(event.snapshotName, fmt::format("{}↔{}", asked.xidA, asked.xidB));
    EXPECT_THAT(event.detail, StartsWith(fmt::format("{} change(s): +1 -1 ~", result.rows.size())));
    EXPECT_THAT(event.detail, testing::EndsWith(" ↻1"));
    EXPECT_EQ(event.volumeName, "Data");

    EXPECT_EQ(stringValue(client.call(asked).reply), path);
    EXPECT_THAT(comparisons(), SizeIs(1)) << "the file answered";

    DiffSnapshots reversed = asked;
    std::swap(reversed.xidA, reversed.xidB);
    std::swap(reversed.nameA, reversed.nameB);
    const DiffResult same = resultAt(stringValue(client.call(reversed).reply));
    EXPECT_EQ(same.rows, result.rows) << "before is the lower XID";
    EXPECT_EQ(same.xidA.value, reversed.xidA);

    DiffSnapshots whole = asked;
    whole.ignoreExclusions = whole.includeTree = true;
    const std::string full = stringValue(client.call(whole).reply);
    EXPECT_THAT(full, testing::EndsWith("-tree-full.qmdiff"));
    EXPECT_THAT(resultAt(full).treeEntries, testing::Not(IsEmpty()));
    EXPECT_THAT(comparisons().back().detail, StartsWith("Full scan (exclusions ignored) · "));

    EXPECT_FALSE(client.call(DeleteSnapshot{asked.nameA, uuid_, false}).reply.error);
    EXPECT_FALSE(std::ifstream(path).good()) << "it goes with its snapshot";
    EXPECT_FALSE(std::ifstream(full).good());
  });
  EXPECT_THAT(machine_.logged(), Contains(fmt::format("XPC diffSnapshots(volume={}, {} ↔ {}, FULL SCAN)", uuid_,
                                                      snapshots_[0].xid.value, snapshots_[1].xid.value)));
}

TEST_F(ComparisonCommands, leaveNoFileOfASnapshotThatWasDeletedMeanwhile) {
  run([&](TestClient& client) {
    client.listen(15s);  // the looks at the disk that the snapshots brought about are over
    DiffSnapshots asked = diff();
    asked.ignoreExclusions = true;
    int scans = 0;
    machine_.sim.directories().watchCalls([&](sim::DirectoryCall call, const std::string&) {
      if (call != sim::DirectoryCall::openTree || ++scans != 2) return;
      EXPECT_TRUE(machine_.volumes.removeSnapshot(machine_.uuid, asked.nameA));
    });
    const std::string path = stringValue(client.call(asked).reply);
    EXPECT_EQ(scans, 2);
    EXPECT_EQ(textOf(resultAt(path)), allOfIt) << "the client has time to read it";
    machine_.sim.directories().watchCalls(nullptr);
    client.listen(15s);
    EXPECT_FALSE(std::ifstream(path).good());
  });
}

TEST_F(ComparisonCommands, checkTheirArgumentsInOrderBeforeAnythingIsRecorded) {
  const std::string backup = machine_.addBackupVolume().lower();
  run([&](TestClient& client) {
    using enum QuillmarkErrorCode;
    DiffSnapshots call = diff();
    call.nameB = "com.apple.os.x";
    expectError(client.call(call), notOurSnapshot,
                "Snapshot \"com.apple.os.x\" is a macOS system snapshot, so Quillmark will not compare it.");
    call.xidB = call.xidA;
    expectError(client.call(call), internalError, "Refusing to diff a snapshot with itself");
    call.nameA = "a/b";
    expectError(client.call(call), internalError, "Snapshot name is malformed");
    call.volumeUUID = "x";
    expectError(client.call(call), invalidVolumeUUID, "Volume UUID is malformed");
    DiffSnapshots onBackup = diff();
    onBackup.volumeUUID = backup;
    const auto refused = client.call(onBackup);
    EXPECT_EQ(refused.reply.error->code(), static_cast<long>(volumeNotAPFSData));
    EXPECT_THAT(refused.reply.error->description(), HasSubstr("so it will not compare snapshots."));
    DiffSnapshots gone = diff();
    gone.xidB = 7;
    EXPECT_EQ(client.call(gone).reply.error->code(), static_cast<long>(snapshotNotFound));
    EXPECT_THAT(comparisons(), IsEmpty());

    expectError(client.call(CompareSubtree{"x", "/", 1, 2}), internalError, "Malformed volume or path");
    for (const char* path : {"", "a", "/a/../b", "/a/..", "/a/\U0010EF2E\U0010EF2E/b", "/a\U0010EF2F../b"}) {
      expectError(client.call(subtree(path)), internalError, "Malformed volume or path");
      expectError(client.call(CompareLocalPaths{"/a", path, false, {}}), internalError, "Malformed path");
    }
    expectError(client.call(subtree("/" + std::string(4095, 'x'))), internalError, "Malformed volume or path");
  });
}

TEST_F(ComparisonCommands, recordWhatFailedAndWhatCouldNotBeRecorded) {
  run([&](TestClient& client) {
    machine_.sim.directories().watchCalls([](sim::DirectoryCall call, const std::string&) {
      if (call == sim::DirectoryCall::openTree) throw Error("POSIX", EIO, "the disk is bad");
    });
    DiffSnapshots whole = diff();
    whole.ignoreExclusions = true;
    EXPECT_TRUE(client.call(whole).reply.error);
    machine_.sim.directories().watchCalls({});
    ASSERT_THAT(comparisons(), SizeIs(1));
    EXPECT_FALSE(comparisons()[0].succeeded);
    EXPECT_THAT(comparisons()[0].errorMessage, testing::Optional(HasSubstr("the disk is bad")));

    machine_.breakAuditTrail();
    const RpcIncoming unrecorded = client.call(diff());
    EXPECT_THAT(stringValue(unrecorded.reply), HasSubstr("-rows.qmdiff"));
    ASSERT_TRUE(unrecorded.reply.error);
    EXPECT_THAT(
        unrecorded.reply.error->description(),
        StartsWith("The diffSnapshots operation completed, but Quillmark could not persist its audit record: "));
  });
}

TEST_F(ComparisonCommands, tellOfAFolderOnlyThoseWhoMayReadIt) {
  run([&](TestClient& client) {
    const auto told = [&](TestClient& asking, const std::string& path) {
      return textOf(payload<DiffResult>(asking.call(subtree(path))));
    };
    EXPECT_EQ(told(client, "/"), allOfIt);
    EXPECT_EQ(told(client, "/a"), "~/a/edited -/a/gone +/a/new ↻/a/other");
    CompareSubtree same = subtree("/");
    same.xidB = same.xidA;
    EXPECT_THAT(payload<DiffResult>(client.call(same)).rows, IsEmpty());

    sim::SimThreadIdentity& rights = machine_.sim.threadIdentities();
    std::vector<std::uint32_t> groups;
    rights.addUser({anna, 100, {100}});
    rights.put("/Volumes/Data/a", {.allows = [&](const UserIdentity& who, unsigned mode) {
                 groups = who.groups;
                 return who.uid == anna && mode == mayRead;
               }});
    forbid("/Volumes/Data/b");
    TestClient annas = connectAnna();
    EXPECT_EQ(told(annas, "/a"), "~/a/edited -/a/gone +/a/new ↻/a/other");
    EXPECT_THAT(groups, ElementsAre(27)) << "as of the connect";
    expectError(annas.call(subtree("/b")), QuillmarkErrorCode::insufficientPrivileges,
                "You do not have permission to compare this folder's history at /Volumes/Data/b.");
  });
  EXPECT_THAT(machine_.logged(), Contains(HasSubstr("compareSubtree failed: You do not have permission")));
  EXPECT_THAT(comparisons(), IsEmpty());
}

TEST_F(ComparisonCommands, compareTwoDirectoriesOfThisMachineWithoutATrace) {
  run([&](TestClient& client) {
    const std::string path =
        stringValue(client.call(MountSnapshot{snapshots_[0].name, uuid_, snapshots_[0].xid.value}).reply);
    const auto events = machine_.events().size();
    const auto result =
        payload<DiffResult>(client.call(CompareLocalPaths{path + "/a", "/Volumes/Data/a", false, std::nullopt}));
    EXPECT_EQ(textOf(result), "~/edited -/gone +/new ↻/other");
    EXPECT_EQ(result.volumeUUID, "local");
    EXPECT_EQ(result.xidA.value, 0U);
    EXPECT_EQ(machine_.events().size(), events);

    forbid("/Volumes/Data/b");
    machine_.sim.threadIdentities().put("/Volumes/Data/a", {});
    TestClient annas = connectAnna();
    EXPECT_FALSE(annas.call(CompareLocalPaths{"/Volumes/Data/a", "/Volumes/Data/a", false, {}}).reply.error);
    expectError(annas.call(CompareLocalPaths{"/Volumes/Data/a", "/Volumes/Data/b", false, {}}),
                QuillmarkErrorCode::insufficientPrivileges,
                "You do not have permission to compare this item at /Volumes/Data/b.");
  });
}

TEST_F(ComparisonCommands, leaveOutOfDirectoriesWhatIsExcludedAtTheirTruePlace) {
  run([&](TestClient& client) {
    HelperSettings settings = *machine_.helper.environment().settings.current();
    settings.excludedPathRules = {"/b/scratch"};
    settings.excludedDirectoryNames = {};
    ASSERT_FALSE(client.call(SetHelperSettings{json(settings)}).reply.error);
    change([](sim::SimTree& tree) { tree.write("/b/scratch/draft", 1), tree.makeDirectory("/c"); });
    const auto told = [&](bool apply, std::optional<std::string> place) {
      return textOf(payload<DiffResult>(
          client.call(CompareLocalPaths{"/Volumes/Data/c", "/Volumes/Data/b", apply, std::move(place)})));
    };
    EXPECT_THAT(told(false, "/b"), HasSubstr("+/scratch/draft"));
    EXPECT_THAT(told(true, "//b/"), testing::Not(HasSubstr("draft")));
    EXPECT_THAT(told(true, "/elsewhere"), HasSubstr("+/scratch/draft"));
  });
}

// Goal:   a reader that hangs holds up nobody but its user, for a minute, and gives its place back when it comes back.
// Method: two users compare; a directory of the first one's hangs when it is opened, until it is let go.
TEST_F(ComparisonCommands, leaveAReaderAloneThatGetsNowhere) {
  run([&](TestClient& client) {
    machine_.sim.threadIdentities().put("/Volumes/Data/b", {});
    machine_.sim.threadIdentities().put("/Volumes/Data/a", {});
    TestClient annas = connectAnna();
    Semaphore letGo(machine_.life.dispatch());
    machine_.sim.directories().watchCalls([&](sim::DirectoryCall call, const std::string& path) {
      if (call == sim::DirectoryCall::open && path == "/Volumes/Data/b") letGo.wait();
    });
    const CompareLocalPaths hanging{"/Volumes/Data/a", "/Volumes/Data/b", false, {}};
    const CompareLocalPaths sound{"/Volumes/Data/a", "/Volumes/Data/a", false, {}};
    const auto elapsed = [&](TestClient& asking, const CompareLocalPaths& call, const std::string& place) {
      const MonotonicTime begun = machine_.life.clock().monotonic();
      const RpcIncoming answer = asking.call(call);
      if (place.empty()) {
        EXPECT_FALSE(answer.reply.error);
      } else {
        EXPECT_THAT(answer.reply.error->description(), StartsWith("The disk holding " + place + " stopped responding"));
      }
      return machine_.life.clock().monotonic() - begun;
    };
    EXPECT_GE(elapsed(annas, hanging, "/Volumes/Data/b"), 60s);
    EXPECT_LT(elapsed(client, sound, ""), 2s);
    EXPECT_LT(elapsed(annas, sound, "/Volumes/Data/b"), 2s) << "no second one beside one that hangs";
    letGo.signal();
    annas.listen(2s);
    EXPECT_LT(elapsed(annas, sound, ""), 2s);
    machine_.sim.directories().watchCalls({});
    EXPECT_EQ(machine_.sim.directories().openNow(), 0);
    EXPECT_EQ(machine_.sim.threadIdentities().openNow(), 0);
  });
}

// A volume that doesn't answer holds up nobody twice, and has a new chance once it is mounted anew.
TEST_F(ComparisonCommands, fenceAVolumeThatHangsUntilItComesBack) {
  run([&](TestClient&) {
    sim::SimThreadIdentity& rights = machine_.sim.threadIdentities();
    rights.mount("/Volumes/Data");
    rights.put("/Volumes/Data/a", {.access = 24h});
    TestClient annas = connectAnna();
    const std::string unresponsive =
        "The disk holding /Volumes/Data/a stopped responding, so Quillmark could not confirm your permission to "
        "compare "
        "this folder's history there. This is usually a network volume that has gone away. Reconnect it, or eject it, "
        "and try again.";
    const auto elapsed = [&] {
      const MonotonicTime begun = machine_.life.clock().monotonic();
      expectError(annas.call(subtree("/a")), QuillmarkErrorCode::insufficientPrivileges, unresponsive);
      return machine_.life.clock().monotonic() - begun;
    };
    EXPECT_GE(elapsed(), 10s);
    EXPECT_LT(elapsed(), 1s) << "fenced";
    rights.put("/Volumes/Data/a", {});
    const sim::SimVolume volume = machine_.volumes.volumes().front();
    machine_.volumes.take(machine_.uuid);
    annas.listen(2s);
    machine_.volumes.add(volume);
    annas.listen(2s);
    EXPECT_FALSE(annas.call(subtree("/a")).reply.error);
  });
  EXPECT_THAT(machine_.logged(), Contains(HasSubstr("(volume remounted); 1 request(s) were refused")));
}

TEST_F(ComparisonCommands, sayThatThereIsNoHistory) {
  createDirectories(machine_.posix, machine_.paths.state("history.sqlite3"), 0700);
  run([&](TestClient& client) {
    expectError(client.call(diff()), QuillmarkErrorCode::internalError,
                "Snapshot comparison history is unavailable. Restart Quillmark after checking free disk space and "
                "helper logs.");
    expectError(client.call(subtree("/")), QuillmarkErrorCode::internalError, "Snapshot history is unavailable");
    EXPECT_THAT(comparisons(), SizeIs(1)) << "a failed attempt";
  });
}

}  // namespace
}  // namespace quillmark
