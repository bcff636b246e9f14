#include <cerrno>

#include "QuillWorld.h"
#include "platform/NameText.h"
#include "quill/ClientVersion.h"
#include "quill/Failures.h"
#include "quill/Quill.h"
#include "wire/Json.h"
#include "wire/JsonText.h"
#include "wire/QuillmarkError.h"

namespace quillmark::cli {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using Words = std::vector<std::string>;

Error posix(int error) { return Error(std::string(posixErrorDomain), error, "The Quillmark helper is not running."); }

template <class Command>
void failWith(QuillWorld& world, const Error& error) {
  world.helper.on<Command>([error](auto&) -> RpcReply { throw Error(error); });
}

TEST(Quill, printsSnapshotsWholeForPrograms) {
  QuillWorld world;
  world.snapshots[0].isProtected = true;
  world.snapshots[0].tag = "my tag";
  world.snapshots[0].displayName = "Second";
  world.snapshots[1].reclaimSizeBytes = 4096;
  const Result result = world.run({"list"});
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_EQ(result.output, manualName("2026-03-01", "first") + " 100 2026-03-01T09:00:00+00:00 - 4096\n" +
                               manualName("2026-03-02", "second") +
                               " 200 2026-03-01T09:00:00+00:00 protected,tag=my\\x20tag -\n");
}

TEST(Quill, printsSnapshotsByLabelForPeopleInTheirZone) {
  QuillWorld world;
  world.simulation.setTimeZone("Asia/Kolkata");
  world.snapshots[0].displayName = "Second\x1b[2J";
  EXPECT_THAT(world.run({"list"}).output, HasSubstr(" 2026-03-01T14:30:00+05:30 "));
  world.terminal.outputIsTerminal = true;
  EXPECT_EQ(world.run({"list"}).output,
            "NAME                               XID  CREATED              FLAGS\n"
            "manual.2026-03-01T00-00-00Z.first  100  2026-03-01 14:30:00\n"
            "Second\\x1b[2J                      200  2026-03-01 14:30:00\n");
  EXPECT_THAT(world.run({"list", "--full"}).output, HasSubstr(manualName("2026-03-02", "second") + " "));
}

TEST(Quill, passesTheListingOnAsJSON) {
  QuillWorld world;
  EXPECT_EQ(world.run({"--json", "list"}).output, encodeJson(world.snapshots) + "\n");
  const Result volumes = world.run({"volumes", "--json"});
  EXPECT_EQ(decodeJson<std::vector<APFSVolume>>(volumes.output), world.volumes.volumes);
  EXPECT_EQ(world.run({"volumes"}).output,
            "Data disk1s1 68719476736 1000 68719475736 NVMe /mnt/data " + dataUUID + "\n");
}

TEST(Quill, tellsWhatNoSnapshotHoldsAndWhichLostTheirVolume) {
  QuillWorld world;
  world.volumes.volumes.push_back(volumeNamed("Home", homeUUID, "disk1s2", "/home"));
  const std::string fileSystem = "11111111-2222-4333-8444-555555555555", gone = "AAAAAAAA-2222-4333-8444-555555555555";
  const std::vector<StrandedSnapshotsRecord> stranded{{gone, 3, std::nullopt}, {fileSystem, 1, "/@old"}};
  world.unserved = {{dataUUID, fileSystem, stranded, 22, {"a", "b/c"}}, {homeUUID, fileSystem, stranded, 0, {}}};
  EXPECT_THAT(world.run({"volumes"}).output, Not(HasSubstr("Note"))) << "a row for each volume, for programs";
  EXPECT_THAT(world.helper.calls, IsEmpty());
  world.terminal = {.outputIsTerminal = true, .obeysEscapes = true};
  const std::string shown = world.run({"volumes"}).output;
  EXPECT_THAT(
      shown,
      HasSubstr("Note: The snapshots of Data leave 22 nested subvolumes out: a, b/c and 20 more. To have "
                "snapshots of one, mount it by itself.\n"
                "Note: 3 snapshots beside Data and Home are of a volume that is gone (" +
                gone +
                "), as after a rollback. They go on taking space. Look at them with the top level mounted (mount -o "
                "subvolid=5), in .quillmark/aaaaaaaa-2222-4333-8444-555555555555, and delete what you don't need: "
                "btrfs subvolume delete.\n"));
  EXPECT_TRUE(
      shown.ends_with("Note: 1 snapshot beside Data and Home is of the subvolume \"/@old\", which isn't mounted: "
                      "mount it to list and to delete them.\n"))
      << "once for a file system: " << shown;
  EXPECT_THAT(world.run({"volumes", "--json"}).output,
              HasSubstr(R"("unservedSubvolumes":{"volumeUUID":")" + homeUUID + R"(","fileSystemUUID":")" + fileSystem));

  world.helper.unreachable = posix(ENOENT);
  const Result alone = world.run({"volumes"});
  EXPECT_EQ(alone.exitCode, 0);
  EXPECT_THAT(alone.output, Not(HasSubstr("Note")));
  EXPECT_THAT(alone.errors, StartsWith("quill: what no snapshot holds isn't known without the helper: "));
  EXPECT_EQ(world.run({"volumes", "--json"}).output, encodeJson(world.volumes.volumes) + "\n");
}

TEST(Quill, createsWithItsLabelOnTheChosenVolume) {
  QuillWorld world;
  CreateSnapshot seen;
  world.helper.on<CreateSnapshot>([&](const CreateSnapshot& call) { return seen = call, RpcReply{"\"made\"", {}}; });
  for (const std::string label : {"list", "[a,b]", "two words", "-dash"}) {
    const Result result = world.run({"create", "-v", "Data", "--", label});
    EXPECT_EQ(result.output, "made\n") << label << result.errors;
    EXPECT_EQ(seen.label, label);
    EXPECT_EQ(seen.volumeUUID, dataUUID);
  }
  EXPECT_EQ(world.run({"create", "--json"}).output, "{\"name\":\"made\"}\n");
  EXPECT_EQ(seen.label, "");
}

TEST(Quill, aWarningOfCompletedWorkIsNoFailure) {
  QuillWorld world;
  const Error warning = QuillmarkError::operationCompleted("Not on record.");
  world.helper.on<CreateSnapshot>([=](auto&) { return RpcReply{"\"made\"", warning}; });
  Result result = world.run({"create"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "made\n");
  EXPECT_THAT(result.errors, StartsWith("quill: Not on record.\nThe operation already completed."));
  result = world.run({"create", "--json"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr(R"({"name":"made","warning":{"domain":)"));
  EXPECT_THAT(result.output, HasSubstr(R"("completed":true)"));

  world.helper.on<DeleteSnapshot>([=](auto&) { return RpcReply{{}, warning}; });
  result = world.run({"delete", "latest"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, world.snapshots[0].name + "\n");
  EXPECT_THAT(result.errors, HasSubstr("Not on record."));
}

TEST(Quill, callsAnySelector) {
  QuillWorld world;
  EXPECT_EQ(world.run({"call", "protocolVersionWithReply:"}).output, "18\n");
  EXPECT_EQ(world.run({"call", "helperVersionWithReply:"}).output, "9.8.7\n");
  EXPECT_EQ(world.run({"call", "helperVersionWithReply:", "--json"}).output, "\"9.8.7\"\n");
  const std::string create = "createSnapshotOnVolume:label:reply:", list = "[\"a\",\n\"b\"]";
  EXPECT_EQ(world.run({"call", create, "\"u\"", "\"x\""}).output, manualName("2026-03-03", "x") + "\n");
  EXPECT_EQ(world.run({"call", "unmountSnapshotAtPath:reply:", "\"/\""}).output, "");
  EXPECT_EQ(world.run({"call", "unmountSnapshotAtPath:reply:", "\"/\"", "--json"}).output, "null\n");

  const std::pair<Words, const char*> wrong[] = {
      {{"call", "nope:"}, "Unknown selector \"nope:\"."},
      {{"call", create, "\"u\""}, "takes 2 argument(s), not 1"},
      {{"call", create, "\"u\"", list}, "is no string"},
      {{"call", create, "--", "\"u\"", "-5"}, "is no string"},
      {{"call", create, "u", "\"x\""}, "The argument \"u\" is no JSON text."},
      {{"call", create, "\"u\",true", "\"x\""}, "is no JSON text."},
      {{"call"}, "selector is required"},
  };
  for (const auto& [words, message] : wrong) {
    const Result result = world.run(words);
    EXPECT_EQ(result.exitCode, exitWrongUse) << message;
    EXPECT_THAT(result.errors, HasSubstr(message));
    EXPECT_THAT(result.output, IsEmpty());
  }
}

TEST(Quill, passesOverPushesWhileItWaits) {
  QuillWorld world;
  world.helper.pushes = {R"({"jsonrpc":"2.0","method":"snapshotsChangedWithVolumeUUID:","params":["x"]})",
                         R"({"jsonrpc":"2.0","id":77,"result":{"value":99}})"};
  EXPECT_EQ(world.run({"call", "protocolVersionWithReply:"}).output, "18\n");
}

TEST(Quill, goesOnWithNoOtherProtocol) {
  QuillWorld world;
  world.helper.on<ProtocolVersion>([](auto&) { return RpcReply{"19", {}}; });
  for (const Words& words : {Words{"create"}, Words{"call", "helperVersionWithReply:"}}) {
    const Result result = world.run(words);
    EXPECT_EQ(result.exitCode, exitFailed);
    EXPECT_THAT(result.errors, HasSubstr("speaks protocol version 18, but the running helper speaks 19."));
  }
  EXPECT_THAT(world.helper.calls, IsEmpty());
  const Result shown = world.run({"version"});
  EXPECT_EQ(shown.exitCode, exitFailed);
  EXPECT_EQ(shown.output,
            "quill     " + std::string(clientVersion()) + "\nhelper    9.8.7\ncommit    abcdef\nprotocol  19\n");
  EXPECT_THAT(world.run({"version", "--json"}).output, HasSubstr(R"("code":1053,"name":"protocolVersionMismatch")"));
}

TEST(Quill, showsHealth) {
  QuillWorld world;
  HelperHealthStatus status;
  status.audit = {HelperSubsystemState::degraded, "a gap\nin it"};
  AuditLogHealth audit;
  world.helper.on<HelperHealth>([&](auto&) { return RpcReply{encodeJson(status), {}}; });
  world.helper.on<GetAuditLogHealth>([&](auto&) { return RpcReply{encodeJson(audit), {}}; });
  EXPECT_THAT(world.run({"health"}).output,
              EndsWith("\naudit degraded a\\x20gap\\x0ain\\x20it\nscheduler healthy -\n"));
  status.notes = {"a key\x1b of our own"};
  audit = {3, 1, Date::from1970(1'772'355'600), "No space left on device"};
  EXPECT_THAT(world.run({"health"}).output,
              EndsWith("\nfailed-writes 3 2026-03-01T09:00:00+00:00\\x20No\\x20space\\x20left\\x20on\\x20device\n"
                       "note - a\\x20key\\x1b\\x20of\\x20our\\x20own\n"));
  const std::string json = world.run({"health", "--json"}).output;
  EXPECT_EQ(decodeJson<HelperHealthStatus>(json), status);
  EXPECT_EQ(ParsedJson(json).value().at("auditLog").at("failedWriteCount").as_int64(), 3);
  world.terminal.outputIsTerminal = true;
  EXPECT_THAT(
      world.run({"health"}).output,
      EndsWith("Records of the activity log that couldn't be written: 3, the last at 2026-03-01 09:00:00: No space "
               "left on device\nNote: a key\\x1b of our own\n"));
}

TEST(Quill, exitCodesTellTheKindOfFailure) {
  using enum QuillmarkErrorCode;
  std::vector<std::pair<Error, int>> cases;
  cases.emplace_back(Error("Other", 1001, "x"), 1);
  cases.emplace_back(Error(std::string(posixErrorDomain), ENOSPC, "x"), 1);
  const std::pair<int, std::vector<QuillmarkErrorCode>> ours[] = {
      {1, {volumeNotFound, snapshotCreateFailed, auditPersistenceFailed}},
      {2, {invalidVolumeUUID, invalidLabel, invalidSnapshotUUID, invalidMountPath, ambiguousSnapshotRef}},
      {4,
       {volumeNotAPFSData, notOurSnapshot, protectedSnapshot, snapshotInUse, insufficientPrivileges,
        helperRestarting}}};
  for (const auto& [exitCode, codes] : ours) {
    for (const QuillmarkErrorCode code : codes) cases.emplace_back(QuillmarkError::make(code, "x"), exitCode);
  }
  for (const auto& [error, exitCode] : cases) {
    QuillWorld world;
    failWith<CreateSnapshot>(world, error);
    EXPECT_EQ(world.run({"create"}).exitCode, exitCode) << error.domain() << error.code();
    const Result json = world.run({"create", "--json"});
    EXPECT_EQ(json.exitCode, exitCode);
    EXPECT_THAT(json.errors, IsEmpty());
    const ParsedJson parsed(json.output);
    EXPECT_EQ(parsed.value().at("error").at("domain"), boost::json::string(error.domain()));
    EXPECT_EQ(parsed.value().at("error").at("code").as_int64(), error.code());
    EXPECT_EQ(parsed.value().at("error").at("name"), boost::json::string(nameOf(error)));
  }
}

TEST(Quill, aHelperThatIsNotThereIsSaidSoWithWhatToDo) {
  const std::pair<int, const char*> cases[] = {{ENOENT, "Start the helper"},
                                               {ECONNREFUSED, "Start the helper"},
                                               {EACCES, "As root: usermod -aG quillmark ida."},
                                               {EPERM, ""},
                                               {EAGAIN, ""}};
  for (const auto& [code, advice] : cases) {
    QuillWorld world;
    world.helper.unreachable = posix(code);
    world.admission = {Admission::Standing::stranger, "ida"};
    const Result result = world.run({"health"});
    EXPECT_EQ(result.exitCode, exitNotReachable);
    EXPECT_THAT(result.errors, StartsWith("quill: The Quillmark helper is not running.\n"));
    EXPECT_THAT(result.errors, HasSubstr(advice));
    EXPECT_EQ(world.run({"volumes"}).exitCode, 0) << "needs no helper";
  }
}

TEST(Quill, whoIsNotLetInIsToldWhoMayAndWhatToDo) {
  using enum Admission::Standing;
  const std::pair<Admission::Standing, const char*> cases[] = {
      {stranger, "you (ida) are none. As root: usermod -aG quillmark ida. Then log out and in again."},
      {afterLogin, "since after you logged in: log out and in again."},
      {groupIsMissing, "which this machine lacks"},
      {welcome, "its log says why it didn't: /var/log/com.harrowfern.quillmark.helper.log"},
      {unknown, "root and the members of the group quillmark"}};
  for (const auto& [standing, advice] : cases) {
    QuillWorld world;
    world.helper.callsUntilGone = 0;
    world.admission = {standing, "ida"};
    const Result result = world.run({"health"});
    EXPECT_EQ(result.exitCode, exitNotReachable);
    EXPECT_THAT(result.errors,
                StartsWith("quill: The Quillmark helper didn't let you in: it closed the connection.\n"));
    EXPECT_THAT(result.errors, HasSubstr(advice));
  }
}

TEST(Quill, aLostAnswerLeavesTheOutcomeOpen) {
  QuillWorld world;
  world.helper.callsUntilGone = 1;
  const Result result = world.run({"create"});
  EXPECT_EQ(result.exitCode, exitNotReachable);
  EXPECT_THAT(result.errors, HasSubstr("Whether the request was carried out isn't known"));
  EXPECT_THAT(world.helper.calls, ElementsAre("createSnapshotOnVolume:label:reply:"));
}

TEST(Quill, wrongUsePointsToTheFittingHelp) {
  const std::pair<Words, const char*> cases[] = {
      {{}, "quill --help"},
      {{"lst"}, "There is no command \"lst\"."},
      {{"delete"}, "quill delete --help"},
      {{"delete", "--forse", "x"}, "--forse"},
      {{"protect"}, "quill protect --help"},
      {{"tag", "latest", "text", "--clear"}, "quill tag --help"},
      {{"log", "--lines", "-3"}, "quill log --help"},
      {{"log", "--kind", "reboot"}, "The kinds: create, delete"},
      {{"log", "--since", "2026-02-30"}, "\"2026-02-30\" is no moment."},
      {{"list", "extra"}, "extra"},
      {{"list", "-v"}, "quill list --help"},
      {{"help", "lst"}, "There is no command"},
      {{"mount", ""}, "can't be empty"},
  };
  for (const auto& [words, message] : cases) {
    QuillWorld world;
    const Result result = world.run(words);
    EXPECT_EQ(result.exitCode, exitWrongUse) << message;
    EXPECT_THAT(result.errors, HasSubstr(message));
    EXPECT_THAT(result.output, IsEmpty());
  }
  QuillWorld world;
  EXPECT_THAT(world.run({"lst", "--json"}).output,
              StartsWith(R"({"error":{"domain":"com.harrowfern.quillmark.cli.Error",)"));
}

TEST(Quill, helpIsThereForEveryCommand) {
  QuillWorld world;
  const std::string program = world.run({"--help"}).output;
  for (const std::string name : {"volumes", "list",    "create",  "safety", "delete",   "protect",  "unprotect",
                                 "tag",     "mount",   "unmount", "log",    "schedule", "settings", "plan",
                                 "space",   "notices", "watch",   "health", "quit",     "version",  "call"}) {
    EXPECT_THAT(program, HasSubstr("  " + name + " "));
    const Result help = world.run({name, "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_THAT(help.output, HasSubstr("Usage: quill " + name));
    EXPECT_THAT(help.output, HasSubstr("Example"));
    EXPECT_EQ(world.run({"help", name}).output, help.output);
  }
  EXPECT_EQ(program.find("--socket"), std::string::npos);
  EXPECT_EQ(world.run({"--version"}).output, "quill " + std::string(clientVersion()) + "\n");
}

// Names reach the helper as text and come back as the same bytes.
TEST(Quill, namesOfAnyBytesAreReferences) {
  QuillWorld world;
  const std::string bytes = ":odd\xff\x1b";
  world.snapshots.push_back(snapshotNamed(nameText(bytes, NameEscapes::controls), 300));
  const Result result = world.run({"delete", bytes});
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_EQ(result.output, ":odd\\xff\\x1b\n");
}

}  // namespace
}  // namespace quillmark::cli
