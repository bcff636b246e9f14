#include "QuillWorld.h"
#include "base/Text.h"
#include "quill/Failures.h"
#include "quill/SizeText.h"
#include "wire/Json.h"
#include "wire/JsonText.h"

namespace quillmark::cli {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Words = std::vector<std::string>;
using enum SnapshotCadence;

const SchedulePolicy usual = SchedulePolicy::makeDefault().normalized();

TEST(Schedule, aVolumeWithoutOneHasNoneUntilItIsSwitchedOn) {
  QuillWorld world;
  EXPECT_EQ(world.run({"schedule", "-v", "Data"}).output, "schedule none - -\n");
  EXPECT_EQ(world.run({"schedule", "-v", "Data", "--json"}).output, "null\n");
  EXPECT_EQ(world.run({"schedule"}).output, "Data none - - " + dataUUID + "\n");
  const Result result = world.run({"schedule", "on"});
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_EQ(result.output,
            "schedule on - -\n"
            "freq on 4 -\n"
            "hourly on 24 -\n"
            "daily on 7 -\n"
            "weekly off 4 2026-03-01T09:00:00+00:00\n"
            "monthly off 1 2026-03-01T09:00:00+00:00\n"
            "low-space on 30000000000 -\n"
            "protect-foreign on - -\n"
            "tracked on - -\n");
  EXPECT_EQ(world.run({"schedule", "-v", "Data"}).output, result.output);
  EXPECT_EQ(world.run({"schedule"}).output, "Data on freq=4,hourly=24,daily=7 30000000000 " + dataUUID + "\n");
}

TEST(Schedule, changesWhatWasSaidAndNothingElse) {
  SchedulePolicy odd = usual;
  odd.enabled = false;
  odd.retention[daily] = 3;
  odd.pruneOnLowSpace = false;
  odd.tracked = true;
  const std::pair<Words, std::function<void(SchedulePolicy&)>> cases[] = {
      {{"on"}, [](auto& p) { p.enabled = true; }},
      {{"off"}, [](auto&) {}},
      {{"set", "--enable", "weekly,monthly"},
       [](auto& p) {
         p.enabledCadences.insert({weekly, monthly});
       }},
      {{"set", "--enable", "weekly", "--enable", "monthly"},
       [](auto& p) {
         p.enabledCadences.insert({weekly, monthly});
       }},
      {{"set", "--disable", "freq,hourly"}, [](auto& p) { p.enabledCadences = {daily}; }},
      {{"set", "--keep", "hourly=12,monthly=12"}, [](auto& p) { p.retention[hourly] = p.retention[monthly] = 12; }},
      {{"set", "--low-space", "on", "--low-space-bytes", "5GB"},
       [](auto& p) { p.pruneOnLowSpace = true, p.lowSpaceBytes = 5'000'000'000; }},
      {{"set", "--protect-foreign", "off"}, [](auto& p) { p.protectForeignSnapshots = false; }},
      {{"on", "--tracked", "off"}, [](auto& p) { p.enabled = true, p.tracked = false; }}};
  for (const auto& [words, change] : cases) {
    QuillWorld world;
    world.schedules[asciiLower(dataUUID)] = odd;
    SchedulePolicy expected = odd;
    change(expected);
    const Result result = world.run({"schedule", "--json"}, words);
    ASSERT_EQ(result.exitCode, 0) << words[0] << result.errors;
    SchedulePolicy stored = world.schedules[asciiLower(dataUUID)];
    EXPECT_EQ(decodeJson<SchedulePolicy>(result.output), stored);
    stored.scheduleDisabledAt.reset();
    stored.cadenceDisabledAt.reset();
    EXPECT_EQ(stored, expected) << encodeJson(stored);
    EXPECT_EQ(result.errors.empty(), stored.tracked == true) << result.errors;
  }
}

TEST(Schedule, whatCannotBeIsRefusedBeforeTheHelperIsAsked) {
  const std::pair<Words, const char*> cases[] = {
      {{"set", "--enable", "yearly"}, "There is no cadence \"yearly\"."},
      {{"set", "--disable", "Daily"}, "The cadences: freq, hourly, daily, weekly, monthly"},
      {{"set", "--keep", "hourly=25"}, "Of the hourly snapshots from 1 to 24 can be kept, not \"25\"."},
      {{"set", "--keep", "freq=0"}, "from 1 to 4"},
      {{"set", "--keep", "daily=-1"}, "from 1 to 7"},
      {{"set", "--keep", "weekly=2x"}, "not \"2x\""},
      {{"set", "--keep", "monthly="}, "from 1 to 12"},
      {{"set", "--keep", "hourly"}, "--keep takes a cadence and a count"},
      {{"set", "--enable", "daily", "--disable", "freq,daily"}, "daily is both enabled and disabled."},
      {{"set", "--low-space", "yes"}, "--low-space is \"on\" or \"off\", not \"yes\"."},
      {{"set", "--low-space-bytes", "4.99GB"}, "at least 5 GB, not 4.99 GB."},
      {{"set", "--low-space-bytes", "much"}, "\"much\" is no size."},
      {{"set"}, "It isn't said what to set."},
      {{"--enable", "daily"}, "quill schedule set"},
      {{"stop"}, "not \"stop\""}};
  for (const auto& [words, message] : cases) {
    QuillWorld world;
    const Result result = world.run({"schedule"}, words);
    EXPECT_EQ(result.exitCode, exitWrongUse) << message;
    EXPECT_THAT(result.errors, HasSubstr(message));
    EXPECT_THAT(world.helper.calls, IsEmpty());
  }
}

TEST(Schedule, theOverviewHasVolumesThatAreNotHereToo) {
  QuillWorld world;
  world.volumes.volumes[0].name = "Da\x1bta";
  SchedulePolicy off = usual;
  off.enabled = off.pruneOnLowSpace = false;
  world.schedules[asciiLower(homeUUID)] = off;
  world.schedules[asciiLower(dataUUID)] = usual;
  world.schedules[asciiLower(dataUUID)].tracked = false;
  EXPECT_EQ(world.run({"schedule"}).output, "Da\\x1bta untracked freq=4,hourly=24,daily=7 30000000000 " + dataUUID +
                                                "\n- off - - " + asciiLower(homeUUID) + "\n");
  EXPECT_EQ(world.run({"schedule", "--json"}).output, encodeJson(world.schedules) + "\n");
  EXPECT_THAT(world.helper.calls, ElementsAre("listSchedulesWithReply:", "listSchedulesWithReply:"));
}

TEST(Schedule, sizesAreMeantAsPeopleWriteThem) {
  const std::pair<const char*, std::int64_t> cases[] = {{"30GB", 30'000'000'000},
                                                        {"30 gb", 30'000'000'000},
                                                        {"30g", 30'000'000'000},
                                                        {"28GiB", 28LL << 30},
                                                        {"1.5TB", 1'500'000'000'000},
                                                        {"5000000000", 5'000'000'000},
                                                        {"0", 0},
                                                        {"7 B", 7}};
  for (const auto& [text, bytes] : cases) EXPECT_EQ(sizeMeant(text), bytes) << text;
  for (const char* text : {"", "GB", "-5GB", "1e9", "inf", "nan", "5XB", "5GBB", "5 G B", "10EB", "99999999999EB"}) {
    EXPECT_THROW((void)sizeMeant(text), Error) << text;
  }
}

}  // namespace
}  // namespace quillmark::cli
