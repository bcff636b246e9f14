#include "StoreLife.h"
#include "wire/Json.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::string store = "schedules.json";
const std::string marker = ".foreign-protection-migrated";

SchedulePolicy policyWith(std::int64_t lowSpaceBytes) {
  SchedulePolicy policy = SchedulePolicy::makeDefault().normalized();
  policy.lowSpaceBytes = lowSpaceBytes;
  return policy;
}
const SchedulePolicy first = policyWith(7'000'000'000);
const SchedulePolicy second = policyWith(8'000'000'000);

TEST(SchedulePersistence, keepsPoliciesNormalizedUnderFoldedUuids) {
  sim::SimPosix files;
  prepareMachine(files, MachineState::fresh);
  const SchedulePolicy standard = SchedulePolicy::makeDefault().normalized();
  {
    StoreLife life(files);
    EXPECT_EQ(life.schedules.policy(volumeA), standard);
    EXPECT_FALSE(life.schedules.hasPolicy(volumeA));
    SchedulePolicy wild = policyWith(3);
    wild.retention = {{SnapshotCadence::hourly, 900}};
    wild.protectForeignSnapshots = false;
    SchedulePolicy mended = wild.normalized();
    EXPECT_EQ(life.schedules.setPolicy(volumeA, wild), mended);
    setAttributes(files, life.paths.stateDirectory, 0755, {.uid = 7, .gid = 7});
    EXPECT_EQ(life.schedules.setPolicy(volumeB, first), first);
    EXPECT_EQ(life.text(store), encodeJson(std::map<std::string, SchedulePolicy>{
                                    {"aaaaaaaa-0000-4000-8000-000000000001", mended}, {volumeB.text(), first}}));
    for (const std::string& name : {store, marker}) EXPECT_EQ(life.attributes(life.paths.state(name)), "600 0:0");
    EXPECT_EQ(life.attributes(life.paths.stateDirectory), "700 0:0");
    EXPECT_EQ(life.text(marker), "");
  }
  StoreLife next(files);
  EXPECT_THAT(next.schedules.allPolicies(),
              ElementsAre(testing::Key(volumeA.text()), testing::Pair(volumeB.text(), first)));
  EXPECT_TRUE(next.schedules.hasPolicy(volumeA));
  EXPECT_FALSE(next.schedules.policy(volumeA).protectForeignSnapshots);  // a choice made after the migration
  EXPECT_EQ(next.schedules.loadFailureDescription(), std::nullopt);
  EXPECT_THAT(next.log.entries(), IsEmpty());
}

TEST(SchedulePersistence, normalizesWhatAFileHolds) {
  sim::SimPosix files;
  prepareMachine(files);
  StoreLife life(files);
  life.put(store,
           "{\"" + volumeA.text() +
               R"(":{"enabled":true,"retention":["hourly",900],"enabledCadences":["hourly"],"pruneOnLowSpace":true,)"
               R"("lowSpaceBytes":1,"protectForeignSnapshots":true}})");
  EXPECT_EQ(life.schedules.policy(volumeA).retention.at(SnapshotCadence::hourly), 24);
  EXPECT_EQ(life.schedules.allPolicies().at(volumeA.text()).lowSpaceBytes, 5'000'000'000);
}

TEST(SchedulePersistence, neverOverwritesAFileThatItCannotUnderstand) {
  const std::string withoutForeign =
      R"(":{"enabled":true,"retention":[],"enabledCadences":[],"pruneOnLowSpace":true,"lowSpaceBytes":1}})";
  for (const std::string& text : {std::string(), std::string("[]"), std::string("{"), std::string("{\"a\":null}"),
                                  std::string(3000, '\0'), "{\"" + volumeA.text() + withoutForeign}) {
    sim::SimPosix files;
    prepareMachine(files);
    StoreLife life(files);
    life.put(store, text);
    EXPECT_EQ(life.schedules.policy(volumeA), SchedulePolicy::makeDefault().normalized());
    EXPECT_THAT(life.schedules.allPolicies(), IsEmpty());
    const std::string why = life.schedules.loadFailureDescription().value_or("");
    EXPECT_THAT(why, StartsWith("decode failed: "));
    ASSERT_EQ(life.log.entries().size(), 1U);
    EXPECT_EQ(life.log.entries()[0].type, PlatformLogType::fault);
    EXPECT_EQ(life.log.entries()[0].message,
              "schedule store decode failed; automatic mutations disabled: " + why.substr(15));
    const Error refused = failureOf([&] { (void)life.schedules.setPolicy(volumeB, first); });
    EXPECT_EQ(refused.code(), 1099);
    EXPECT_EQ(refused.description(), "Schedule storage is degraded and cannot be overwritten: " + why);
    EXPECT_EQ(life.text(store), text);
    EXPECT_THAT(life.names(), ElementsAre(store));
  }
}

TEST(SchedulePersistence, staysDegradedWhileItsFileCannotBeRead) {
  for (const sim::PosixCall call : {sim::PosixCall::open, sim::PosixCall::read}) {
    sim::SimPosix files;
    prepareMachine(files);
    (void)StoreLife(files).schedules.setPolicy(volumeA, first);
    StoreLife life(files);
    files.setPlan({.fault = sim::Fault::fail, .atCall = 1, .only = call});
    const std::string why = life.schedules.loadFailureDescription().value_or("");
    EXPECT_THAT(why, StartsWith("read failed: "));
    EXPECT_THAT(life.log.entries(),
                ElementsAre(testing::FieldsAre(
                    PlatformLogType::fault, "com.harrowfern.quillmark.helper", "schedules",
                    "schedule store exists but cannot be read; automatic mutations disabled: " + why.substr(13))));
    EXPECT_THROW((void)life.schedules.setPolicy(volumeA, second), Error);
    EXPECT_FALSE(life.schedules.hasPolicy(volumeA));
    EXPECT_EQ(StoreLife(files).schedules.policy(volumeA), first);
  }
}

TEST(SchedulePersistence, boundsWhatClientsCanStore) {
  std::map<std::string, SchedulePolicy> many;
  for (std::size_t i = 0; i + 1 < SchedulePersistence::mostVolumes; ++i) many[std::to_string(i)] = first;
  sim::SimPosix files;
  prepareMachine(files);
  StoreLife life(files);
  life.put(store, encodeJson(many));
  EXPECT_EQ(life.schedules.setPolicy(volumeA, first), first);
  EXPECT_THROW((void)life.schedules.setPolicy(volumeB, first), Error);
  EXPECT_EQ(life.schedules.setPolicy(volumeA, second), second);
  EXPECT_EQ(life.schedules.loadFailureDescription(), std::nullopt);
}

// The complaint about what the next process finds; `stored` must be there if the last one said so.
std::string lookAtPolicies(sim::SimPosix& after, const sim::FaultRun& run, const std::optional<SchedulePolicy>& before,
                           const SchedulePolicy& stored) {
  StoreLife next(after);
  if (const auto why = next.schedules.loadFailureDescription()) return "degraded: " + *why;
  const auto all = next.schedules.allPolicies();
  const auto found = all.contains(volumeA.text()) ? std::optional(all.at(volumeA.text())) : std::nullopt;
  if (found != before && found != stored) return "neither the old policy nor the new one";
  if (run.completed && found != stored) return "an acknowledged policy is lost";
  if (before && (!all.contains(volumeB.text()) || all.at(volumeB.text()) != first)) return "another volume's is lost";
  if (run.completed && next.attributes(next.paths.state(store)) != "600 0:0") return "open to others";
  if (run.plan.fault != sim::Fault::kill && next.names().size() > 2) return "a temporary file stays";
  return "";
}

// A process sets a policy. If that fails, the store says so from then on, and keeps the old one in force.
void setUnderFault(sim::SimPosix& files, const std::optional<SchedulePolicy>& before) {
  StoreLife life(files);
  try {
    (void)life.schedules.setPolicy(volumeA, second);
    EXPECT_EQ(life.schedules.policy(volumeA), second);
  } catch (const Error& failure) {
    const std::string why = life.schedules.loadFailureDescription().value_or("");
    const bool unread = why.starts_with("read failed: ");
    if (!unread) {
      EXPECT_EQ(why, "write failed: " + failure.description());
    }
    EXPECT_EQ(life.schedules.hasPolicy(volumeA), before.has_value() && !unread);
    EXPECT_EQ(life.schedules.policy(volumeA), unread ? SchedulePolicy::makeDefault().normalized()
                                                     : before.value_or(SchedulePolicy::makeDefault().normalized()));
    const std::string left = life.text(store);
    const Error refused = failureOf([&] { (void)life.schedules.setPolicy(volumeA, second); });
    EXPECT_EQ(refused.description(), "Schedule storage is degraded and cannot be overwritten: " + why);
    EXPECT_EQ(life.text(store), left);
    throw;
  }
}

// Goal:   an acknowledged policy is there afterwards, whatever fails; what fails leaves the old or the new, whole.
// Method: every call of a load and a save fails, ends the process or ends the power; the next process looks.
TEST(SchedulePersistence, keepsAnAcknowledgedPolicyWhateverFails) {
  for (const MachineState state : {MachineState::used, MachineState::fresh}) {
    const auto before = state == MachineState::used ? std::optional(first) : std::nullopt;
    const auto prepare = [&](sim::SimPosix& files) {
      prepareMachine(files, state);
      if (!before) return;
      StoreLife life(files);
      for (const VolumeUuid& volume : {volumeA, volumeB}) (void)life.schedules.setPolicy(volume, first);
    };
    const auto set = [&](sim::SimPosix& files) { setUnderFault(files, before); };
    const auto look = [&](sim::SimPosix& after, const sim::FaultRun& run) {
      return lookAtPolicies(after, run, before, second);
    };
    EXPECT_THAT(sim::forEachFault(everyFailure, prepare, set, look), IsEmpty()) << before.has_value();
  }
}

void putUnprotected(sim::SimPosix& files) {
  prepareMachine(files);
  SchedulePolicy open = first;
  open.protectForeignSnapshots = false;
  StoreLife(files).put(store, encodeJson(std::map<std::string, SchedulePolicy>{
                                  {volumeA.text(), open}, {volumeB.text(), open}, {"c", second}}));
}

TEST(SchedulePersistence, protectsForeignSnapshotsOfOldPoliciesOnce) {
  sim::SimPosix files;
  putUnprotected(files);
  {
    StoreLife life(files);
    EXPECT_EQ(life.schedules.policy(volumeA), first);
    ASSERT_EQ(life.log.entries().size(), 1U);
    EXPECT_EQ(life.log.entries()[0].message,
              "migrated 2 volume policy/policies to protect foreign snapshots from low-space pruning");
    EXPECT_EQ(life.attributes(life.paths.state(marker)), "600 0:0");
  }
  StoreLife next(files);
  SchedulePolicy open = first;
  open.protectForeignSnapshots = false;
  (void)next.schedules.setPolicy(volumeB, open);
  StoreLife last(files);
  EXPECT_EQ(last.schedules.policy(volumeA), first);
  EXPECT_EQ(last.schedules.policy(volumeB), open);
  EXPECT_THAT(last.log.entries(), IsEmpty());
}

// Goal:   no process goes by an unprotected policy from before, and the mark never stands beside one.
TEST(SchedulePersistence, marksTheMigrationOnlyOverASavedOne) {
  const auto load = [](sim::SimPosix& files) {
    StoreLife life(files);
    const bool unread = life.schedules.loadFailureDescription().has_value();
    EXPECT_EQ(life.schedules.policy(volumeA), unread ? SchedulePolicy::makeDefault().normalized() : first);
    EXPECT_EQ(life.schedules.policy(volumeB).protectForeignSnapshots, true);
    for (const auto& entry : life.log.entries()) {
      if (entry.type == PlatformLogType::error) {
        EXPECT_THAT(entry.message,
                    StartsWith("foreign-snapshot protection migration could not be saved; will retry: "));
      }
    }
  };
  const auto look = [&](sim::SimPosix& after, const sim::FaultRun&) -> std::string {
    StoreLife next(after);
    const bool marked = next.text(marker) != "[none]";
    const auto stored = decodeJson<std::map<std::string, SchedulePolicy>>(next.text(store));
    if (marked && !stored.at(volumeA.text()).protectForeignSnapshots) return "marked, but not saved";
    if (next.schedules.policy(volumeA) != first || next.schedules.policy(volumeB) != first) return "unprotected";
    return next.schedules.loadFailureDescription() ? "degraded" : "";
  };
  const auto prepare = [](sim::SimPosix& files) { putUnprotected(files); };
  EXPECT_THAT(sim::forEachFault(everyFailure, prepare, load, look), IsEmpty());
}

TEST(SchedulePersistence, letsNoSaveOfManyBeLost) {
  for (std::uint64_t seed = 1; seed <= 25; ++seed) {
    sim::SimPosix files;
    prepareMachine(files);
    {
      StoreLife life(files, seed);
      for (int i = 0; i < 8; ++i) {
        life.life.spawn("save", [&life, i] {
          (void)life.schedules.setPolicy(VolumeUuid("v" + std::to_string(i)), policyWith(6'000'000'000 + i));
        });
      }
      life.simulation.runFor(std::chrono::seconds(1));
    }
    StoreLife next(files);
    ASSERT_EQ(next.schedules.allPolicies().size(), 8U) << seed;
    for (int i = 0; i < 8; ++i) {
      ASSERT_EQ(next.schedules.policy(VolumeUuid("V" + std::to_string(i))).lowSpaceBytes, 6'000'000'000 + i) << seed;
    }
  }
}

}  // namespace
}  // namespace quillmark
