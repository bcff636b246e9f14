#include <fmt/format.h>

#include "QuillWorld.h"
#include "base/Text.h"
#include "journal/HelperEvent.h"
#include "quill/Failures.h"
#include "quill/IndexText.h"
#include "quill/TerminalText.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

std::string progress(std::uint64_t xid, const std::string& phase, std::int64_t files) {
  return encodePush("indexProgressWithVolumeUUID:snapshotXID:phase:filesScanned:",
                    {asciiLower(dataUUID), xid, phase, files});
}

// A helper that indexes: what it is asked to index is done after so many looks at the listing.
class IndexingWorld : public QuillWorld {
 public:
  IndexingWorld() {
    helper.on<ListSnapshots>([&](auto&) {
      if (looks > 0 && --looks == 0) {
        for (SnapshotRecord& snapshot : snapshots) snapshot.isIndexed = true;
        record(snapshots[0].name, 1234);
        helper.pushes = {};
      }
      return RpcReply{encodeJson(snapshots), {}};
    });
    helper.on<ReindexSnapshot>([&](const ReindexSnapshot& call) {
      for (SnapshotRecord& snapshot : snapshots) {
        if (snapshot.xid.value == call.xid) snapshot.isIndexed = false;
      }
      begin();
      return RpcReply{};
    });
    helper.on<ReindexVolume>([&](auto&) {
      for (SnapshotRecord& snapshot : snapshots) snapshot.isIndexed = complete || snapshot.xid.value == 100;
      return RpcReply{};
    });
    helper.on<ReindexAllVolumes>([&](auto&) {
      for (SnapshotRecord& snapshot : snapshots) snapshot.isIndexed = false;
      begin();
      return RpcReply{};
    });
    helper.on<CreateSnapshot>([&](const CreateSnapshot& call) {
      snapshots.insert(snapshots.begin(), snapshotNamed(manualName("2026-03-03", call.label), 300));
      begin();
      return RpcReply{jsonString(snapshots[0].name), {}};
    });
  }
  // The audit record of a snapshot that was indexed.
  void record(const std::string& name, std::int64_t files) const {
    HelperEvent event{.id = "x", .kind = HelperEvent::Kind::indexSnapshot, .client = HelperEvent::Client::helper};
    event.volumeUUID = dataUUID;
    event.snapshotName = name;
    event.detail = fmt::format("Full-scan index · {} files", files);
    event.succeeded = true;
    event.durationMs = 2500;
    append("activity.log", encodeJson(event) + "\n");
  }
  void begin() {
    helper.pushes = {progress(200, "indexing", 400), progress(200, "indexing", 800)};
    looks = 3;
  }
  void atTerminal() { terminal = {.errorsIsTerminal = true, .obeysEscapes = true}; }

  int looks = 0;
  bool complete = true;
};

TEST(IndexBar, showsShareRateAndTimeLeftAndNeverMoreThanFits) {
  const IndexRun run{"before the mishap", 532'113, 2s, 1'000'000};
  EXPECT_EQ(barOf(run, 100), "before the mishap  ━━━━━━━━━━━━────────────  53%  532,113 files  266,056/s  1 s left");
  EXPECT_EQ(barOf({"x", 532'113, 65s, std::nullopt}, 100), "x  532,113 files  8,186/s  1 min 5 s");
  EXPECT_EQ(barOf({"x", 7, 100ms, std::nullopt}, 100), "x  7 files") << "too early for a rate";
  EXPECT_EQ(barOf({"x", 887'046, 7s, std::nullopt, 2s}, 100), "x  887,046 files  still working  7 s");
  EXPECT_EQ(barOf({"x", 1'200'000, 2s, 1'000'000}, 100), "x  1,200,000 files  600,000/s  2 s")
      << "more than the last time: nobody knows how much is left";
  EXPECT_THAT(barOf({"x", 100, 1ms, 100}, 100), HasSubstr(" 99%  100 files")) << "it isn't done before it is said";
  EXPECT_THAT(barOf({"e\x1b[2Jvil", 1, 2s, 100}, 100), Not(HasSubstr("\x1b")));
  for (std::size_t width = 20; width < 120; ++width) EXPECT_LE(displayWidth(barOf(run, width)), width);
}

TEST(Index, tellsHowEachVolumeIs) {
  IndexingWorld world;
  const auto status = [&] { return world.run({"index"}).output; };
  const std::string tail = " " + dataUUID;
  EXPECT_EQ(status(), "Data waiting 2 0 2" + tail + " -\n");
  world.settings.indexingMode = IndexingMode::disabled;
  EXPECT_EQ(status(), "Data off 2 0 2" + tail + " -\n");
  world.snapshots[0].isIndexed = true;
  EXPECT_EQ(status(),
            "Data partial 2 1 0" + tail +
                " quill\\x20index\\x20rebuild\\x20takes\\x20in\\x20what\\x20is\\x20older\\x20than\\x20the\\x20index\n");
  world.snapshots[1].isIndexed = true;
  EXPECT_EQ(status(), "Data current 2 2 0" + tail + " -\n");
  world.helper.pushes = {progress(200, "indexing", 532113)};
  EXPECT_EQ(status(), "Data indexing 2 2 0" + tail +
                          " manual.2026-03-02T00-00-00Z.second:\\x20532,113\\x20files\\x20so\\x20far\n");
  EXPECT_THAT(world.run({"index", "--json"}).output,
              HasSubstr(R"("state":"indexing","snapshots":2,"indexed":2,"waiting":0,"outside":0)"));
  world.health.history = {HelperSubsystemState::unavailable, "no room"};
  EXPECT_EQ(world.run({"index", "-v", "Data"}).exitCode, exitDone);
  world.helper.pushes = {};
  EXPECT_EQ(status(), "Data unavailable 2 2 0" + tail + " no\\x20room\n");
}

TEST(Index, aSnapshotIsWaitedForAndNamedOnceItIsIndexed) {
  IndexingWorld world;
  const Result result = world.run({"index", "snapshot", "latest"});
  EXPECT_EQ(result.output, world.snapshots[0].name + "\n");
  EXPECT_EQ(result.exitCode, exitDone);
  EXPECT_THAT(result.errors, HasSubstr("quill: indexing manual.2026-03-02T00-00-00Z.second\n"));
  EXPECT_EQ(world.run({"index", "snapshot", "latest", "--json"}).output,
            "{\"name\":\"" + world.snapshots[0].name + "\"}\n");
}

TEST(Index, whatTheHelperRefusesIsToldWithWhatCanBeDone) {
  IndexingWorld world;
  world.helper.on<ReindexSnapshot>([](auto&) -> RpcReply {
    throw Error("Quillmark.SnapshotHistory", 20, "Only the newest indexed snapshot can be re-indexed in place.");
  });
  const Result result = world.run({"index", "snapshot", "100"});
  EXPECT_EQ(result.exitCode, exitFailed);
  EXPECT_THAT(result.errors, HasSubstr("Only the newest indexed snapshot"));
  EXPECT_THAT(result.errors, HasSubstr("quill index rebuild"));
}

TEST(Index, aFailureOfTheRunEndsTheWait) {
  IndexingWorld world;
  world.helper.on<ReindexSnapshot>([&](auto&) {
    world.health.history = {HelperSubsystemState::degraded, "Other [" + homeUUID + "] · x · XID 1: no | Data [" +
                                                                dataUUID + "] · second · XID 200: disk is bad"};
    return RpcReply{};
  });
  const Result result = world.run({"index", "snapshot", "latest", "--json"});
  EXPECT_EQ(result.exitCode, exitFailed);
  EXPECT_THAT(result.output, HasSubstr("\"notIndexed\""));
  EXPECT_THAT(result.output, HasSubstr("XID 200: disk is bad"));
  EXPECT_THAT(result.output, Not(HasSubstr("XID 1: no"))) << "another volume's";
}

TEST(Index, aRebuildShowsWhatBecameOfTheVolumeAndFailsWhenSomethingIsMissing) {
  IndexingWorld world;
  world.helper.pushes = {progress(100, "indexing", 5), progress(200, "indexing", 7), progress(0, "done", 0)};
  world.record(world.snapshots[1].name, 1234567);
  const Result result = world.run({"index", "rebuild", "Data"});
  EXPECT_EQ(result.exitCode, exitDone);
  EXPECT_EQ(result.output, "Data current 2 2 0 " + dataUUID + " -\n");
  EXPECT_THAT(result.errors, HasSubstr("quill: indexed manual.2026-03-01T00-00-00Z.first: 1,234,567 files in 2.5 s\n"));
  world.complete = false;
  EXPECT_EQ(world.run({"index", "rebuild", "-v", "Data"}).exitCode, exitFailed);
}

TEST(Index, aRebuildOfAllVolumesIsFollowedToItsEnd) {
  IndexingWorld world;
  const Result result = world.run({"index", "rebuild", "--all"});
  EXPECT_EQ(result.output, "Data current 2 2 0 " + dataUUID + " -\n");
  EXPECT_EQ(result.exitCode, exitDone);
}

TEST(Index, aTerminalSeesABarThatLeavesNoTrace) {
  IndexingWorld world;
  world.atTerminal();
  world.record("earlier", 1000);
  const Result result = world.run({"index", "snapshot", "latest"});
  EXPECT_THAT(result.errors, HasSubstr("  40%  400 files"));
  EXPECT_THAT(result.errors, HasSubstr("  80%  800 files"));
  EXPECT_THAT(result.errors, EndsWith("\r\x1b[K"));
}

TEST(Index, createAnswersAtOnceAndWaitsWhenItIsAskedTo) {
  IndexingWorld world;
  Result result = world.run({"create", "one"});
  EXPECT_THAT(world.helper.calls, ElementsAre("createSnapshotOnVolume:label:reply:"));
  result = world.run({"create", "--wait-index", "two"});
  EXPECT_EQ(result.output, manualName("2026-03-03", "two") + "\n");
  EXPECT_TRUE(world.snapshots[0].isIndexed);
  EXPECT_EQ(world.run({"create", "--wait-index", "--json", "x"}).output,
            "{\"name\":\"" + manualName("2026-03-03", "x") + "\"}\n");
}

TEST(Index, createDoesNotBeginToWaitForWhatWillNotCome) {
  IndexingWorld world;
  world.settings.indexingMode = IndexingMode::disabled;
  EXPECT_EQ(world.run({"create", "--wait-index", "x"}).exitCode, exitFailed);
  world.settings.indexingMode = IndexingMode::fullScan;
  world.schedules[asciiLower(dataUUID)].tracked = false;
  EXPECT_EQ(world.run({"create", "--wait-index", "x"}).exitCode, exitFailed);
  EXPECT_THAT(world.helper.calls, Not(testing::Contains("createSnapshotOnVolume:label:reply:")));
}

TEST(Index, misuseIsToldBeforeAnythingIsAsked) {
  QuillWorld world;
  const std::vector<std::vector<std::string>> cases = {{"index", "snapshot"},
                                                       {"index", "rebuild", "Data", "-v", "Data"},
                                                       {"index", "rebuild", "Data", "--all"},
                                                       {"index", "--all"},
                                                       {"index", "status", "Data"},
                                                       {"index", "reset"}};
  for (const auto& words : cases) EXPECT_EQ(world.run(words).exitCode, exitWrongUse) << words.back();
  EXPECT_TRUE(world.helper.calls.empty());
}

}  // namespace
}  // namespace quillmark::cli
