#include <fmt/format.h>

#include "QuillWorld.h"
#include "base/Text.h"
#include "quill/Failures.h"
#include "wire/Json.h"
#include "wire/JsonText.h"

namespace quillmark::cli {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

const Date nine = Date::from1970(1'772'355'600);  // 2026-03-01T09:00:00Z

class PlanOf : public testing::Test {
 protected:
  PlanOf() {
    world.snapshots.clear();
    SchedulePolicy& policy = world.schedules[asciiLower(dataUUID)] = SchedulePolicy::makeDefault().normalized();
    policy.retention[SnapshotCadence::hourly] = 2;
  }
  SchedulePolicy& policy() { return world.schedules[asciiLower(dataUUID)]; }
  SnapshotRecord& add(const std::string& name, double hoursOld) {
    world.snapshots.push_back(snapshotNamed(name, 1000 + world.snapshots.size()));
    world.snapshots.back().createdAt = nine - Seconds(hoursOld * 3600);
    return world.snapshots.back();
  }
  SnapshotRecord& addOwn(const std::string& kind, double hoursOld) {
    return add("com.harrowfern.Quillmark." + kind + ".2026-03-01T00-00-00Z", hoursOld);
  }
  // Kind, end and reason of each, in the order of its XID.
  std::vector<std::string> lines() {
    const Result result = world.run({"plan"});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    std::vector<std::string> lines;
    for (std::string_view rest = result.output; !rest.empty(); rest.remove_prefix(rest.find('\n') + 1)) {
      const std::string_view line = rest.substr(0, rest.find('\n'));
      lines.emplace_back(line.substr(line.find(' ', line.find(' ') + 1) + 1));
    }
    return lines;
  }

  QuillWorld world;
};

using Lines = std::vector<std::string>;

TEST_F(PlanOf, whatTheScheduleCountsGoesByCountTheOldestFirst) {
  addOwn("auto.hourly", 3);
  addOwn("auto.hourly", 2.5).isProtected = true;
  addOwn("auto.hourly", 2);
  addOwn("auto.hourly", 1);
  EXPECT_EQ(lines(), (Lines{"hourly 2026-03-01T09:00:00+00:00 count", "hourly never -",
                            "hourly 2026-03-01T09:00:00+00:00 -", "hourly 2026-03-01T10:00:00+00:00 -"}));
}

TEST_F(PlanOf, whatNothingCountsEndsByItsNature) {
  addOwn("auto.weekly", 24);
  addOwn("safety", 25);
  addOwn("safety", 1);
  addOwn("manual", 9000);
  EXPECT_EQ(lines(), (Lines{"weekly 2026-03-30T09:00:00+00:00 -", "safety 2026-03-01T08:00:00+00:00 lifespan",
                            "safety 2026-03-02T08:00:00+00:00 -", "manual whenSpaceLow -"}));
  // Nothing expires within a day of the volume's first sighting.
  world.freeSpace = {{.volumeUUID = dataUUID, .firstSeenAt = nine - Seconds(3600)}};
  EXPECT_EQ(lines()[1], "safety 2026-03-02T08:00:00+00:00 -");
  policy().pruneOnLowSpace = false;
  EXPECT_EQ(lines()[3], "manual never -");
}

TEST_F(PlanOf, whatOthersMadeIsLeftAloneUnlessSpaceIsLow) {
  SnapshotRecord& foreign = add("nightly-7", 30);
  foreign.isProtected = foreign.isAutoProtected = true;
  EXPECT_EQ(lines(), (Lines{"foreign external -"}));
  policy().protectForeignSnapshots = false;
  foreign.isProtected = foreign.isAutoProtected = false;
  EXPECT_EQ(lines(), (Lines{"foreign whenSpaceLow -"}));
  foreign.isProtected = true;
  EXPECT_EQ(lines(), (Lines{"foreign external -"}));
}

TEST_F(PlanOf, tellsWhatHoldsTheSchedulerBack) {
  addOwn("auto.hourly", 3);
  world.settings.automaticDeletionEnabled = false;
  EXPECT_THAT(world.run({"plan"}).errors, HasSubstr("Automatic deletion is switched off"));
  world.settings.automaticDeletionEnabled = true;
  EXPECT_THAT(world.run({"plan"}).errors, IsEmpty());
  policy().tracked = false;
  EXPECT_THAT(world.run({"plan"}).errors, HasSubstr("isn't tracked"));
  EXPECT_EQ(lines(), (Lines{"hourly never -"}));
  world.schedules.clear();
  EXPECT_THAT(world.run({"plan"}).errors, HasSubstr("has no schedule"));
  EXPECT_EQ(lines(), (Lines{"hourly unknown -"}));
}

TEST_F(PlanOf, deletesNothingAndSpeaksToPeopleAndPrograms) {
  for (int hour = 4; hour > 0; --hour) addOwn("auto.hourly", hour);
  add("odd\x1b", 5);
  const ParsedJson parsed(world.run({"plan", "--json"}).output);
  const auto& all = parsed.value().as_array();
  ASSERT_EQ(all.size(), 5u);
  EXPECT_EQ(all[0].at("removal"), "count");
  EXPECT_EQ(all[0].at("expiry").at("case"), "at");
  EXPECT_EQ(all[3].at("removal"), "none");
  EXPECT_EQ(all[3].at("expiry").at("date").to_number<double>(), (nine + Seconds(3600)).secondsSinceReference());
  EXPECT_EQ(all[4].at("name"), "odd\x1b");
  world.terminal.outputIsTerminal = true;
  const std::string shown = world.run({"plan"}).output;
  EXPECT_THAT(shown, AllOf(StartsWith("SNAPSHOT "), HasSubstr("goes: beyond the newest 2 hourly\n"),
                           HasSubstr("odd\\x1b"), HasSubstr("The next pass deletes 2 snapshots.")));
  EXPECT_THAT(world.helper.calls, Not(Contains(StartsWith("delete"))));
}

TEST(Space, isShownAsItWasMeasured) {
  QuillWorld world;
  EXPECT_EQ(world.run({"space"}).output, "");
  const auto state = [](const std::string& uuid, std::int64_t free) {
    return VolumeFreeSpaceState{
        .volumeUUID = uuid, .totalBytes = 100'000'000'000, .freeBytes = free, .lowSpaceBytesThreshold = 30'000'000'000};
  };
  world.freeSpace = {state(dataUUID, 33'000'000'000), state(homeUUID, 32'999'999'999), state("x\x1b", 29'999'999'999)};
  world.freeSpace[0].nextPruneCheckAt = world.freeSpace[0].firstSeenAt = nine;
  const std::string time = " 2026-03-01T09:00:00+00:00";
  EXPECT_EQ(world.run({"space"}).output, "Data 100000000000 33000000000 30000000000 enough" + time + time + " " +
                                             dataUUID + "\n- 100000000000 32999999999 30000000000 near - - " +
                                             homeUUID + "\n- 100000000000 29999999999 30000000000 low - - x\\x1b\n");
  EXPECT_EQ(decodeJson<std::vector<VolumeFreeSpaceState>>(world.run({"space", "--json"}).output), world.freeSpace);
  world.terminal.outputIsTerminal = true;
  EXPECT_THAT(world.run({"space"}).output, HasSubstr("Data    100 GB  33 GB    30 GB  enough"));
}

}  // namespace
}  // namespace quillmark::cli
