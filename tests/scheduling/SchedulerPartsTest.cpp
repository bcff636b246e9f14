#include <gtest/gtest.h>

#include <limits>

#include "journal/HelperNotification.h"
#include "platform/sim/Simulation.h"
#include "scheduling/AttemptRecords.h"
#include "scheduling/LowSpacePass.h"
#include "scheduling/PeopleText.h"
#include "wire/Json.h"

namespace quillmark {
namespace {

const VolumeUuid volume("00112233-4455-6677-8899-aabbccddeeff");

TEST(PeopleText, ShowsSizesAsFileManagersDo) {
  struct Case {
    std::int64_t bytes;
    const char* text;
  };
  for (const Case& test :
       {Case{0, "Zero KB"}, Case{1, "1 byte"}, Case{999, "999 bytes"}, Case{1000, "1 KB"}, Case{1499, "1 KB"},
        Case{999'400, "999 KB"}, Case{999'600, "1 MB"}, Case{1'540'000, "1.5 MB"}, Case{29'554'000'000, "29.55 GB"},
        Case{30'000'000'000, "30 GB"}, Case{29'500'000'000, "29.5 GB"}, Case{100'000'000'000, "100 GB"},
        Case{4'000'000'000'000, "4 TB"}, Case{std::numeric_limits<std::int64_t>::max(), "9.22 EB"}}) {
    EXPECT_EQ(fileSizeText(test.bytes), test.text);
  }
}

TEST(PeopleText, ShowsTimesOfTwelveHours) {
  EXPECT_EQ(shortDateAndTime({2026, 3, 1, 0, 5, 0, 0}), "Mar 1, 2026, 12:05 AM");
  EXPECT_EQ(shortDateAndTime({2026, 12, 31, 12, 0, 0, 0}), "Dec 31, 2026, 12:00 PM");
  EXPECT_EQ(shortDateAndTime({2026, 6, 9, 23, 59, 59, 0}), "Jun 9, 2026, 11:59 PM");
}

TEST(PruneKind, GoesByTheNameAlone) {
  struct Case {
    const char* name;
    PruneKind kind;
  };
  for (const Case& test :
       {Case{"com.harrowfern.Quillmark.auto.hourly.2025-03-01T12-00-00Z", PruneKind::automatic},
        Case{"com.harrowfern.Quillmark.manual.2025-03-01T12-00-00Z", PruneKind::manual},
        Case{"com.harrowfern.Quillmark.safety.2025-03-01T12-00-00Z", PruneKind::automatic},
        Case{"com.harrowfern.Quillmark.manual", PruneKind::automatic},
        Case{"com.harrowfern.quillmark.manual.x", PruneKind::foreign}, Case{":other", PruneKind::foreign}}) {
    EXPECT_EQ(pruneKind(test.name), test.kind) << test.name;
  }
  EXPECT_EQ(word(PruneKind::foreign), "foreign");
}

TEST(AttemptRecords, HoldBackOneSlotOfOneCadence) {
  sim::Simulation simulation;
  AttemptRecords records(simulation.startLife("helper").dispatch());
  const Date slot = Date::fromReference(3600), next = Date::fromReference(7200);
  const auto mayTry = [&](Date occurrence, Date now, SnapshotCadence cadence = SnapshotCadence::hourly) {
    return records.mayTry(volume, cadence, occurrence, now);
  };
  records.retryFrom(volume, SnapshotCadence::hourly, slot, slot + Seconds(600));
  EXPECT_FALSE(mayTry(slot, slot + Seconds(540)));
  EXPECT_TRUE(mayTry(slot, slot + Seconds(599.5))) << "the tick of that minute may come a little early";
  EXPECT_TRUE(mayTry(slot, slot, SnapshotCadence::daily));
  EXPECT_TRUE(mayTry(next, slot));
  records.giveUp(volume, SnapshotCadence::hourly, slot);
  EXPECT_FALSE(mayTry(slot, Date::fromReference(1e9)));
  EXPECT_TRUE(mayTry(next, next));
  records.forget(volume, SnapshotCadence::hourly);
  EXPECT_TRUE(mayTry(slot, slot));
}

TEST(HelperNotification, ComesBackFromItsJson) {
  HelperNotification notice;
  notice.id = "00112233-4455-6677-8899-AABBCCDDEEFF";
  notice.timestamp = *parseIso8601("2026-03-01T09:00:00Z");
  EXPECT_EQ(
      encodeJson(notice),
      R"({"id":"00112233-4455-6677-8899-AABBCCDDEEFF","timestamp":"2026-03-01T09:00:00Z","kind":"post","title":"",)"
      R"("message":"","category":"info","importance":"normal","emailable":true})");
  notice.kind = HelperNotification::Kind::resolve;
  notice.title = "Title";
  notice.message = "Message";
  notice.category = NotificationCategory::leftMounted;
  notice.importance = NotificationImportance::critical;
  notice.volumeUUID = "uuid";
  notice.volumeName = "Data";
  notice.deepLink = "quillmark://alarm";
  notice.dedupeKey = "key";
  notice.cooldown = 21600;
  notice.emailable = false;
  EXPECT_EQ(decodeJson<HelperNotification>(encodeJson(notice)), notice);
}

TEST(HelperNotification, ReadsLinesOfOtherVersions) {
  const std::string id = R"("id":"0F0E0D0C-0000-4000-8000-000000000001")",
                    time = R"("timestamp":"2026-03-01T09:00:00Z")";
  const std::string required = "{" + id + "," + time;
  const auto sparse = decodeJson<HelperNotification>(required + "}");
  EXPECT_EQ(sparse.kind, HelperNotification::Kind::post);
  EXPECT_EQ(sparse.category, NotificationCategory::info);
  EXPECT_EQ(sparse.importance, NotificationImportance::normal);
  EXPECT_TRUE(sparse.emailable);
  EXPECT_EQ(sparse.cooldown, std::nullopt);
  const auto strange = decodeJson<HelperNotification>(
      required + R"(,"kind":"undo","category":"weather","importance":"vast","emailable":false,"more":1})");
  EXPECT_EQ(strange.kind, HelperNotification::Kind::post);
  EXPECT_EQ(strange.category, NotificationCategory::info);
  EXPECT_EQ(strange.importance, NotificationImportance::normal);
  EXPECT_FALSE(strange.emailable);
  for (const std::string& lacking : {id, time, R"("id":"A",)" + time}) {
    EXPECT_THROW((void)decodeJson<HelperNotification>("{" + lacking + "}"), Error) << lacking;
  }
}

}  // namespace
}  // namespace quillmark
