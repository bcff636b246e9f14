#include "QuillWorld.h"
#include "journal/HelperNotification.h"
#include "quill/Failures.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

std::string push(const std::string& selector, const ArgumentValues& arguments) {
  return encodePush(selector, arguments);
}

TEST(Watch, tellsEachThingInALineUntilTheHelperEnds) {
  QuillWorld world;
  HelperNotification notice{
      .id = "0F0E0D0C-0000-4000-8000-000000000001", .title = "Bad", .message = "a\nb", .volumeUUID = dataUUID};
  const VolumeFreeSpaceState state{.volumeUUID = dataUUID, .freeBytes = 30'000'000'000};
  const std::pair<std::string, std::string> cases[] = {
      {push("snapshotsChangedWithVolumeUUID:", {dataUUID}), "snapshots Data " + dataUUID + " changed"},
      {push("scheduleEventWithVolumeUUID:cadenceRaw:eventRaw:message:",
            {homeUUID, std::string("hourly"), std::string("create_failed"), std::string("why\x1b")}),
       "schedule - " + homeUUID + " create_failed\\x20hourly:\\x20why\\x1b"},
      {push("freeSpaceUpdateWithJsonStates:", {JsonArgument{encodeJson(std::vector{state})}}),
       "free-space - - " + dataUUID + "\\x2030\\x20GB"},
      {push("notificationPostedWithJson:", {JsonArgument{encodeJson(notice)}}),
       "notice Data " + dataUUID + " Bad:\\x20a\\x0ab"},
      {push("indexProgressWithVolumeUUID:snapshotXID:phase:filesScanned:",
            {dataUUID, std::uint64_t{7}, std::string("scan"), std::int64_t{9}}),
       "index Data " + dataUUID + " scan\\x20of\\x207:\\x209\\x20files"},
      {push("snapshotsChangedWithVolumeUUID:", {std::uint64_t{7}}), "snapshotsChangedWithVolumeUUID: - - [7]"},
      {push("newsWithText:", {std::string("x")}), "newsWithText: - - [\"x\"]"}};
  std::string expected;
  for (const auto& [line, words] : cases) {
    world.helper.later.push_back(line);
    expected += "2026-03-01T09:00:00+00:00 " + words + "\n";
  }
  const Result result = world.run({"watch"});
  EXPECT_EQ(result.output, expected);
  EXPECT_EQ(result.exitCode, exitNotReachable);
  EXPECT_THAT(result.errors, HasSubstr("has ended the connection."));
  EXPECT_THAT(world.run({"watch", "--json"}).output,
              StartsWith(R"({"method":"snapshotsChangedWithVolumeUUID:","params":[")" + dataUUID + "\"]}\n"));
  world.reads = 2;
  EXPECT_EQ(world.run({"watch"}).exitCode, exitDone) << "nobody reads on";
}

}  // namespace
}  // namespace quillmark::cli
