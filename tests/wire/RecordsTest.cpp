#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <random>

#include "journal/HelperEvent.h"
#include "scheduling/rules/SchedulePolicy.h"
#include "snapshots/APFSVolume.h"
#include "wire/Json.h"
#include "wire/QuillmarkError.h"
#include "wire/Records.h"
#include "wire/Rpc.h"

namespace quillmark {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

template <class Record>
std::string complaintOf(std::string_view text) {
  try {
    (void)decodeJson<Record>(text);
  } catch (const Error& error) {
    return error.description();
  }
  return "";
}

TEST(Records, leaveEmptyOptionalsOutAndTakeThemMissingOrNull) {
  SnapshotRecord record{.name = "a", .xid = {18446744073709551615U}, .createdAt = Date::fromReference(0.5)};
  const std::string text = encodeJson(record);
  EXPECT_THAT(text, Not(HasSubstr("reclaimSizeBytes")));
  EXPECT_THAT(text, HasSubstr("\"xid\":18446744073709551615"));
  EXPECT_EQ(decodeJson<SnapshotRecord>(text), record);
  const auto fromNull =
      decodeJson<SnapshotRecord>(R"({"name":"a","xid":1,"createdAt":0,"reclaimSizeBytes":null,"isProtected":null})");
  EXPECT_FALSE(fromNull.reclaimSizeBytes);
  EXPECT_FALSE(fromNull.isProtected);
}

TEST(Records, requireOnlyNameXidAndDateOfASnapshot) {
  EXPECT_NO_THROW((void)decodeJson<SnapshotRecord>(R"({"name":"a","xid":1,"createdAt":0})"));
  for (const char* text : {R"({"xid":1,"createdAt":0})", R"({"name":"a","createdAt":0})", R"({"name":"a","xid":1})"}) {
    EXPECT_THAT(complaintOf<SnapshotRecord>(text), HasSubstr("lacks the key")) << text;
  }
}

TEST(Records, sayWhatIsWrongAndWhere) {
  EXPECT_THAT(complaintOf<std::vector<SnapshotDeleteSpec>>(R"([{"name":"a","force":false},{"name":1,"force":true}])"),
              HasSubstr("$[1].name is no string"));
  EXPECT_THAT(complaintOf<SnapshotRecord>(R"({"name":"a","xid":-1,"createdAt":0})"), HasSubstr("$.xid"));
  EXPECT_THAT(complaintOf<SnapshotRecord>(R"({"name":"a","xid":1.5,"createdAt":0})"), HasSubstr("$.xid"));
  EXPECT_THAT(complaintOf<SnapshotRecord>(R"({"name":"a","xid":1e30,"createdAt":0})"), HasSubstr("$.xid"));
  EXPECT_THAT(complaintOf<SnapshotRecord>(R"({"name":"a","xid":1,"createdAt":1e999})"), HasSubstr("malformed"));
}

TEST(Records, boundWhatAPeerCanMakeUsHold) {
  EXPECT_THAT(complaintOf<SnapshotRecord>(std::string(1000, '[') + std::string(1000, ']')), HasSubstr("deep"));
  std::string wide = "[";
  for (int i = 0; i < 3'000'000; ++i) wide += "[],";
  EXPECT_THAT(complaintOf<SnapshotRecord>(wide + "[]]"), HasSubstr("too much memory"));
}

TEST(Records, bringEveryDateBackToTheLastBit) {
  std::mt19937_64 random(1);
  SnapshotRecord record{.name = "a", .xid = {1}};
  for (int i = 0; i < 20'000; ++i) {
    const double seconds = std::bit_cast<double>(random());
    if (!std::isfinite(seconds)) continue;
    record.createdAt = Date::fromReference(seconds);
    ASSERT_EQ(decodeJson<SnapshotRecord>(encodeJson(record)), record) << seconds;
  }
}

TEST(Records, keepTheirDateStyle) {
  HelperEvent event{.id = "x", .timestamp = Date::fromReference(86400), .client = HelperEvent::Client::cli};
  const std::string text = encodeJson(event);
  EXPECT_THAT(text, HasSubstr("\"timestamp\":\"2001-01-02T00:00:00Z\""));
  EXPECT_EQ(decodeJson<HelperEvent>(text), event);
  EXPECT_THAT(complaintOf<HelperEvent>(R"({"id":"x","timestamp":"2001-02-30T00:00:00Z"})"), HasSubstr("timestamp"));
}

TEST(Records, codeMapsKeyedByACadenceAsFlatArrays) {
  SchedulePolicy policy = SchedulePolicy::makeDefault().normalized();
  policy.cadenceDisabledAt = {{SnapshotCadence::weekly, Date::fromReference(5)}};
  const std::string text = encodeJson(policy);
  EXPECT_THAT(text, HasSubstr(R"("retention":["freq",4,"hourly",24,"daily",7,"weekly",4,"monthly",1])"));
  EXPECT_THAT(text, HasSubstr(R"("cadenceDisabledAt":["weekly",5)"));
  EXPECT_EQ(decodeJson<SchedulePolicy>(text), policy);
}

TEST(Records, refuseAPolicyWithoutARequiredKeyOrWithAnUnknownCadence) {
  const std::string good =
      R"({"enabled":true,"retention":["hourly",2],"enabledCadences":["hourly"],"pruneOnLowSpace":true,
      "lowSpaceBytes":1,"protectForeignSnapshots":true,"unknown":[1]})";
  EXPECT_EQ(decodeJson<SchedulePolicy>(good).retention.at(SnapshotCadence::hourly), 2);
  for (const char* key :
       {"enabled", "retention", "enabledCadences", "pruneOnLowSpace", "lowSpaceBytes", "protectForeignSnapshots"}) {
    std::string text = good;
    text.replace(text.find("\"" + std::string(key) + "\""), 2, "\"_");
    EXPECT_THAT(complaintOf<SchedulePolicy>(text), HasSubstr("lacks the key \"" + std::string(key) + "\""));
  }
  std::string yearly = good;
  yearly.replace(yearly.find("[\"hourly\"]"), 10, "[\"yearly\"]");
  EXPECT_THAT(complaintOf<SchedulePolicy>(yearly), HasSubstr("unknown word"));
  std::string odd = good;
  odd.replace(odd.find("[\"hourly\",2]"), 12, "[\"hourly\"]");
  EXPECT_THAT(complaintOf<SchedulePolicy>(odd), HasSubstr("pairs"));
}

TEST(Errors, mapEveryNumberOutsideTheTableToInternalError) {
  for (const long known : {1001, 1004, 1011, 1022, 1037, 1053, 1061, 1099}) {
    EXPECT_EQ(static_cast<long>(QuillmarkError::code(known)), known);
  }
  for (const long unknown : {0, 1000, 1050, 1100, -1}) {
    EXPECT_EQ(QuillmarkError::code(unknown), QuillmarkErrorCode::internalError);
  }
}

TEST(Errors, countAsCompletedOnlyWithDomainCodeAndMark) {
  EXPECT_TRUE(QuillmarkError::isOperationCompleted(QuillmarkError::operationCompleted("done")));
  EXPECT_FALSE(QuillmarkError::isOperationCompleted(
      QuillmarkError::make(QuillmarkErrorCode::auditPersistenceFailed, "no mark")));
  const RpcIncoming marked = decodeIncoming(
      R"({"id":1,"result":{"error":{"domain":"com.harrowfern.quillmark.Error","code":1061,"userInfo":{"QuillmarkOperationCompleted":false}}}})");
  EXPECT_FALSE(QuillmarkError::isOperationCompleted(*marked.reply.error));
  EXPECT_FALSE(QuillmarkError::isOperationCompleted(Error("other", 1061, "x").asOperationCompleted()));
  EXPECT_FALSE(QuillmarkError::isOperationCompleted(
      QuillmarkError::make(QuillmarkErrorCode::internalError, "x").asOperationCompleted()));
  const Error audit = QuillmarkError::auditNotPersisted("deleteSnapshot", Error("d", 1, "disk full"));
  EXPECT_EQ(audit.description(),
            "The deleteSnapshot operation completed, but Quillmark could not persist its audit record: disk full");
  EXPECT_EQ(audit.recoverySuggestion(),
            "The operation already completed. Do not retry it; export diagnostics and check available disk space.");
}

}  // namespace
}  // namespace quillmark
