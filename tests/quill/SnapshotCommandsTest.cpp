#include "QuillWorld.h"
#include "quill/Failures.h"
#include "wire/Json.h"
#include "wire/JsonText.h"
#include "wire/QuillmarkError.h"

namespace quillmark::cli {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string refusal = "Refusing to delete a protected snapshot. Use Force or unprotect it first.";

// As the service does: what the listing shows as protected goes by force alone.
std::optional<std::string> refusalFor(const QuillWorld& world, const std::string& name, bool force) {
  for (const SnapshotRecord& snapshot : world.snapshots) {
    if (snapshot.name == name && snapshot.isProtected && !force) return refusal;
  }
  return std::nullopt;
}

void serveDeletions(QuillWorld& world) {
  world.helper.on<DeleteSnapshot>([&](const DeleteSnapshot& call) -> RpcReply {
    if (const auto sentence = refusalFor(world, call.name, call.force)) {
      throw QuillmarkError::make(QuillmarkErrorCode::protectedSnapshot, *sentence);
    }
    return {};
  });
  world.helper.on<DeleteSnapshots>([&](const DeleteSnapshots& call) {
    std::vector<SnapshotNameOutcome> outcomes;
    for (const auto& spec : decodeJson<std::vector<SnapshotDeleteSpec>>(call.specs.text)) {
      outcomes.push_back({spec.name, refusalFor(world, spec.name, spec.force)});
    }
    return RpcReply{encodeJson(outcomes), {}};
  });
}

TEST(SnapshotCommands, deleteDoesWhatItCanByOneCallAndEndsWithTheWorst) {
  QuillWorld world;
  serveDeletions(world);
  world.snapshots[0].isProtected = true;
  Result result = world.run({"delete", "latest", "nosuch", "first", "latest~1"});
  EXPECT_EQ(result.exitCode, exitRefused);
  EXPECT_EQ(result.output, world.snapshots[1].name + "\n");
  EXPECT_THAT(world.helper.calls, ElementsAre(ListSnapshots::traits.selector, DeleteSnapshots::traits.selector))
      << "a snapshot named twice goes once";
  EXPECT_THAT(result.errors, HasSubstr("quill: manual.2026-03-02T00-00-00Z.second: " + refusal + "\n"));
  EXPECT_THAT(result.errors, HasSubstr("quill: There is no snapshot \"nosuch\"."));

  result = world.run({"delete", "latest", "nosuch", "first", "--json"});
  const ParsedJson parsed(result.output);
  const auto& outcomes = parsed.value().as_array();
  ASSERT_EQ(outcomes.size(), 3u);
  EXPECT_EQ(outcomes[0].at("error").at("name"), "protectedSnapshot");
  EXPECT_EQ(outcomes[0].at("error").at("message"), boost::json::string(refusal));
  EXPECT_EQ(outcomes[0].at("deleted"), false);
  EXPECT_EQ(outcomes[1].at("reference"), "nosuch");
  EXPECT_EQ(outcomes[2].at("deleted"), true);
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_EQ(world.run({"delete", "--force", "latest", "first"}).exitCode, 0);
}

TEST(SnapshotCommands, aRefusedDeletionNamesWhatProtectsAndTheWayOut) {
  QuillWorld world;
  serveDeletions(world);
  world.snapshots[0].isProtected = true;
  world.snapshots.push_back(snapshotNamed(":by hand", 300));
  world.snapshots[2].isProtected = world.snapshots[2].isAutoProtected = true;
  const std::tuple<const char*, const char*, std::string> cases[] = {
      {"second", "Data",
       "\"manual.2026-03-02T00-00-00Z.second\" was protected by somebody (quill log --kind protect tells by whom). To "
       "take "
       "that back:\n  quill unprotect second -v Data\nTo delete it all the same:\n  quill delete --force second -v "
       "Data\n"},
      {":by hand", "$(mount) point",
       "\":by hand\" was made by another program, and this volume protects such snapshots. To delete it all the "
       "same:\n  quill delete --force 300 -v " +
           dataUUID + "\n"}};
  world.volumes.places["$(mount) point"] = {Place::Kind::volumes, {"/mnt/data"}};
  for (const auto& [reference, volume, advice] : cases) {
    const Result result = world.run({"delete", reference, "-v", volume});
    EXPECT_EQ(result.exitCode, exitRefused);
    EXPECT_EQ(result.errors, "quill: " + refusal + "\n" + advice);
    EXPECT_THAT(result.output, IsEmpty());
  }
}

TEST(SnapshotCommands, deleteAsksWhoSitsThereAndNobodyElse) {
  QuillWorld world;
  world.snapshots[1].isProtected = true;
  EXPECT_EQ(world.run({"delete", "latest"}).exitCode, 0) << "nobody is there to be asked";
  world.answer = false;
  world.helper.calls.clear();
  const Result declined = world.run({"delete", "latest", "first", "nosuch"});
  EXPECT_EQ(declined.exitCode, exitFailed);
  EXPECT_EQ(declined.errors, "quill: Nothing was deleted.\n");
  EXPECT_THAT(world.helper.calls, ElementsAre(ListSnapshots::traits.selector));
  EXPECT_THAT(world.questions, ElementsAre("  2026-03-01 09:00:00  manual.2026-03-02T00-00-00Z.second\n"
                                           "  2026-03-01 09:00:00  manual.2026-03-01T00-00-00Z.first  (protected)\n"
                                           "Delete these 2 snapshots of \"Data\"? [y/N] "));
  EXPECT_EQ(world.run({"delete", "latest", "--yes"}).exitCode, 0);
  EXPECT_EQ(world.run({"delete", "nosuch"}).exitCode, exitFailed);
  EXPECT_EQ(world.questions.size(), 1u) << "with nothing to delete, or told not to, it asks nothing";
  world.answer = true;
  EXPECT_EQ(world.run({"delete", "latest"}).exitCode, 0);
  EXPECT_EQ(world.questions.size(), 2u);
}

// Goal:   a helper that dies amid its work leaves no doubt about what was done and what wasn't.
TEST(SnapshotCommands, aLostHelperLeavesNoDoubtAboutEachSnapshot) {
  QuillWorld world;
  world.helper.callsUntilGone = 2;  // the protocol's version, the listing
  Result result = world.run({"delete", "latest", "first", "--json"});
  EXPECT_EQ(result.exitCode, exitNotReachable);
  ParsedJson parsed(result.output);
  EXPECT_EQ(parsed.value().at(0).at("error").at("name"), "answerLost");
  EXPECT_EQ(parsed.value().at(1).at("error").at("name"), "answerLost");

  world.helper.callsUntilGone = 2;
  world.helper.calls.clear();
  result = world.run({"protect", "latest", "first", "--json"});
  EXPECT_EQ(result.exitCode, exitNotReachable);
  EXPECT_EQ(world.helper.calls.size(), 2u);
  const ParsedJson second(result.output);
  EXPECT_EQ(second.value().at(0).at("error").at("name"), "answerLost");
  EXPECT_EQ(second.value().at(1).at("error").at("name"), "helperNotReachable");
  EXPECT_THAT(std::string(second.value().at(1).at("error").at("message").as_string()), HasSubstr("nothing was done"));
}

TEST(SnapshotCommands, manyAreDeletedByAsManyCallsAsItTakes) {
  QuillWorld world;
  std::vector<std::string> words{"delete"};
  for (std::uint64_t i = 0; i < 450; ++i) {
    world.snapshots.push_back(snapshotNamed("s" + std::to_string(i), 1000 + i));
    words.push_back(std::to_string(1000 + i));
  }
  const Result result = world.run(words);
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 450);
  EXPECT_EQ(world.helper.calls.size(), 4u);
}

TEST(SnapshotCommands, anAuditGapOfOneItemIsAWarning) {
  QuillWorld world;
  world.helper.on<DeleteSnapshots>([&](auto&) {
    const std::vector<SnapshotNameOutcome> outcomes{{"a"}, {"b", {}, "Not on record."}};
    return RpcReply{encodeJson(outcomes), {}};
  });
  const Result result = world.run({"delete", "latest", "first"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.errors, HasSubstr("quill: Not on record.\nThe operation already completed."));

  world.helper.on<DeleteSnapshots>([&](auto&) { return RpcReply{"[]", {}}; });
  EXPECT_THAT(world.run({"delete", "latest", "first"}).errors, HasSubstr("told the outcome of 0 instead of 2"));
}

TEST(SnapshotCommands, protectsAndUnprotectsEachOfMany) {
  QuillWorld world;
  std::vector<SetProtected> seen;
  world.helper.on<SetProtected>([&](const SetProtected& call) -> RpcReply {
    seen.push_back(call);
    if (call.name == world.snapshots[1].name) throw QuillmarkError::make(QuillmarkErrorCode::internalError, "No.");
    return {};
  });
  Result result = world.run({"protect", "latest", "first"});
  EXPECT_EQ(result.exitCode, exitFailed);
  EXPECT_EQ(result.output, world.snapshots[0].name + "\n");
  EXPECT_EQ(result.errors, "quill: manual.2026-03-01T00-00-00Z.first: No.\n");
  result = world.run({"unprotect", "latest", "--json"});
  EXPECT_EQ(result.output,
            "[{\"reference\":\"latest\",\"name\":\"" + world.snapshots[0].name + "\",\"unprotected\":true}]\n");
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_TRUE(seen[0].isProtected && seen[1].isProtected && !seen[2].isProtected);
  EXPECT_EQ(seen[2].volumeUUID, dataUUID);
}

TEST(SnapshotCommands, tagsAreShownSetAndCleared) {
  QuillWorld world;
  std::vector<std::string> set;
  world.helper.on<SetSnapshotTag>([&](const SetSnapshotTag& call) { return set.push_back(call.tag), RpcReply{}; });
  EXPECT_EQ(world.run({"tag", "latest"}).output, "");
  EXPECT_EQ(world.run({"tag", "latest", "--json"}).output, "{\"name\":\"" + world.snapshots[0].name + "\"}\n");
  world.snapshots[0].tag = "tests\x1b passed";
  EXPECT_EQ(world.run({"tag", "latest"}).output, "tests\x1b passed\n") << "a program gets the bytes";
  EXPECT_THAT(world.run({"tag", "latest", "--json"}).output, HasSubstr(R"("tag":"tests\u001b passed")"));
  EXPECT_EQ(world.run({"tag", "latest", "[a,b]"}).output, world.snapshots[0].name + "\n");
  EXPECT_EQ(world.run({"tag", "latest", "--clear"}).exitCode, 0);
  EXPECT_EQ(world.run({"tag", "latest", ""}).exitCode, 0);
  EXPECT_THAT(set, ElementsAre("[a,b]", "", ""));
  world.terminal.outputIsTerminal = true;
  EXPECT_EQ(world.run({"tag", "latest"}).output, "tests\\x1b passed\n");
  EXPECT_EQ(world.run({"tag", "first"}).output, "\"manual.2026-03-01T00-00-00Z.first\" has no tag.\n");
}

TEST(SnapshotCommands, safetySnapshotsAndQuittingAreAskedFor) {
  QuillWorld world;
  EXPECT_EQ(world.run({"safety", "before work"}).output, "safety of before work\n");
  EXPECT_THAT(world.run({"quit"}).output, HasSubstr("finishes what it has begun"));
  world.helper.on<RequestQuit>([](auto&) { return RpcReply{"false", {}}; });
  const Result again = world.run({"quit"});
  EXPECT_EQ(again.exitCode, 0);
  EXPECT_EQ(again.output, "The helper was already quitting.\n");
  EXPECT_EQ(world.run({"quit", "--json"}).output, "{\"quitting\":true,\"wasQuitting\":true}\n");
  world.helper.on<RequestQuit>([](auto&) { return RpcReply{"7", {}}; });
  EXPECT_THAT(world.run({"quit"}).errors, HasSubstr("neither true nor false"));
}

TEST(SnapshotCommands, mountsAndUnmountsByReferenceAndPath) {
  QuillWorld world;
  MountSnapshot mounted;
  std::string unmounted;
  world.helper.on<MountSnapshot>([&](const MountSnapshot& call) {
    return mounted = call, RpcReply{"\"/Volumes/x\"", {}};
  });
  world.helper.on<UnmountSnapshot>([&](const UnmountSnapshot& call) { return unmounted = call.path, RpcReply{}; });
  EXPECT_EQ(world.run({"mount", "first"}).output, "/Volumes/x\n");
  EXPECT_EQ(mounted.xid, 100u);
  EXPECT_EQ(mounted.name, world.snapshots[1].name);

  const std::string path = "/Volumes/Old name-a9be83c9-2a01-4f91-bdff-297973e90a78@snap-100";
  world.volumes.mounts = {"/", "/Volumes/Data-105e7df1-fe4d-0c4d-86df-b8688302286a@snap-100",
                          "/elsewhere/x-a9be83c9-2a01-4f91-bdff-297973e90a78@snap-100", path};
  EXPECT_EQ(world.run({"unmount", "first"}).output, path + "\n");
  EXPECT_EQ(unmounted, path);
  const Result result = world.run({"unmount", "latest"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.errors, HasSubstr("is not mounted."));
  EXPECT_EQ(world.run({"unmount", "./x@snap-1", "--json"}).output, "{\"path\":\"/here/./x@snap-1\"}\n");
  EXPECT_EQ(unmounted, "/here/./x@snap-1");
}

TEST(SnapshotCommands, anOperatingSystemsSnapshotReachesTheHelpersRefusal) {
  QuillWorld world;
  std::string name;
  world.helper.on<DeleteSnapshot>([&](const DeleteSnapshot& call) -> RpcReply {
    name = call.name;
    throw QuillmarkError::make(QuillmarkErrorCode::notOurSnapshot, "Refusing.");
  });
  EXPECT_EQ(world.run({"delete", "com.apple.os.update"}).exitCode, exitRefused);
  EXPECT_EQ(name, "com.apple.os.update");
}

TEST(SnapshotCommands, severalAreMountedAndUnmountedByOneCall) {
  QuillWorld world;
  Result result = world.run({"mount", "latest", "first"});
  EXPECT_EQ(result.output, "/Volumes/Data-x@snap-200\n/Volumes/Data-x@snap-100\n");
  world.helper.on<MountSnapshots>([&](auto&) {
    const std::vector<SnapshotMountOutcome> outcomes{{Xid{200}, "/Volumes/a"}, {Xid{100}, {}, "It won't."}};
    return RpcReply{encodeJson(outcomes), {}};
  });
  result = world.run({"mount", "latest", "first", "nosuch"});
  EXPECT_EQ(result.exitCode, exitFailed);
  EXPECT_EQ(result.output, "/Volumes/a\n");
  EXPECT_THAT(result.errors, AllOf(HasSubstr("first: It won't."), HasSubstr("There is no snapshot \"nosuch\".")));
  const ParsedJson mounts(world.run({"mount", "latest", "first", "--json"}).output);
  EXPECT_EQ(mounts.value().at(0).at("path"), "/Volumes/a");
  EXPECT_EQ(mounts.value().at(1).at("error").at("name"), "snapshotMountFailed");

  world.helper.on<UnmountSnapshots>([&](const UnmountSnapshots& call) {
    const std::vector<SnapshotPathOutcome> outcomes{
        {call.paths[0]}, {call.paths[1], "This snapshot is in use: Ida looks at it. Close the window using it."}};
    return RpcReply{encodeJson(outcomes), {}};
  });
  world.helper.calls.clear();
  result = world.run({"unmount", "/Volumes/a", "/Volumes/b", "/Volumes/a"});
  EXPECT_EQ(result.exitCode, exitRefused);
  EXPECT_EQ(result.output, "/Volumes/a\n");
  EXPECT_THAT(result.errors, HasSubstr("quill: /Volumes/b: This snapshot is in use: Ida looks at it."));
  EXPECT_THAT(world.helper.calls, ElementsAre(UnmountSnapshots::traits.selector)) << "paths need no listing";
}

}  // namespace
}  // namespace quillmark::cli
