#include "StoreLife.h"
#include "wire/Json.h"

namespace quillmark {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::string store = "settings.json";
const char* const unmerged = R"({"excludedPathRules":["/mine","/cores"]})";

HelperSettings settingsWith(std::int64_t hours) {
  HelperSettings settings;
  settings.safetySnapshotRetentionHours = hours;
  return settings;
}

TEST(HelperSettingsPersistence, servesDefaultsUntilSomethingIsSaved) {
  sim::SimPosix files;
  prepareMachine(files, MachineState::fresh);
  StoreLife life(files);
  EXPECT_EQ(life.settings.current(), HelperSettings());
  EXPECT_THAT(life.settings.mergeNewDefaults(), IsEmpty());
  EXPECT_EQ(life.attributes(life.paths.stateDirectory), "[none]");
  EXPECT_EQ(life.settings.update(settingsWith(5000)), settingsWith(720));
  EXPECT_EQ(life.settings.current(), settingsWith(720));
  EXPECT_EQ(life.attributes(life.paths.stateDirectory), "700 0:0");
  EXPECT_EQ(life.attributes(life.paths.state(store)), "600 0:0");
  EXPECT_EQ(life.text(store), encodeJson(settingsWith(720)));
}

TEST(HelperSettingsPersistence, normalizesWhatAFileHolds) {
  sim::SimPosix files;
  prepareMachine(files);
  StoreLife life(files);
  life.put(store, R"({"safetySnapshotRetentionHours":0,"excludedPathRules":[" a/ "],"exclusionDefaultsVersion":1})");
  HelperSettings wanted = settingsWith(1);
  wanted.excludedPathRules = {"/a"};
  EXPECT_EQ(life.settings.current(), wanted);
}

TEST(HelperSettingsPersistence, mergesNewDefaultsOnceIntoAnOldFile) {
  sim::SimPosix files;
  prepareMachine(files);
  {
    StoreLife life(files);
    life.put(store, unmerged);
    EXPECT_EQ(life.settings.mergeNewDefaults().size(), 5U);
    EXPECT_THAT(life.settings.mergeNewDefaults(), IsEmpty());
  }
  StoreLife next(files);
  HelperSettings settings = *next.settings.current();
  EXPECT_EQ(settings.excludedPathRules.size(), 7U);
  EXPECT_EQ(settings.exclusionDefaultsVersion, 1);
  settings.excludedPathRules = {"/mine"};
  (void)next.settings.update(settings);
  StoreLife last(files);
  EXPECT_THAT(last.settings.mergeNewDefaults(), IsEmpty());
  EXPECT_THAT(last.settings.current()->excludedPathRules, ElementsAre("/mine"));
}

TEST(HelperSettingsPersistence, servesDefaultsOverAFileThatItNeverOverwrites) {
  for (const std::string text : {"", "[]", "{\"indexingMode\":\"half\"}", "{\"monitoredPaths\":[1]}"}) {
    sim::SimPosix files;
    prepareMachine(files);
    StoreLife life(files);
    life.put(store, text);
    EXPECT_EQ(life.settings.current(), HelperSettings());
    EXPECT_THAT(life.settings.mergeNewDefaults(), IsEmpty());
    const std::string why = life.settings.loadFailureDescription().value_or("");
    EXPECT_THAT(life.helperLog.errors,
                ElementsAre("Helper settings store is unreadable; automatic deletion disabled: " + why));
    const Error refused = failureOf([&] { (void)life.settings.update(settingsWith(2)); });
    EXPECT_EQ(refused.code(), 1099);
    EXPECT_EQ(refused.description(), "Helper settings storage is degraded and cannot be overwritten: " + why);
    EXPECT_EQ(life.text(store), text);
  }
}

std::string lookAtSettings(sim::SimPosix& after, const sim::FaultRun& run, const HelperSettings& before,
                           const HelperSettings& stored) {
  StoreLife next(after);
  const auto found = next.settings.current();
  if (const auto why = next.settings.loadFailureDescription()) return "degraded: " + *why;
  if (found != before && found != stored) return "neither the old settings nor the new ones";
  if (run.completed && found != stored) return "acknowledged settings are lost";
  if (run.completed && next.attributes(next.paths.state(store)) != "600 0:0") return "open to others";
  if (run.plan.fault != sim::Fault::kill && next.names().size() > 1) return "a temporary file stays";
  return "";
}

void updateUnderFault(sim::SimPosix& files, const HelperSettings& before) {
  StoreLife life(files);
  try {
    (void)life.settings.update(settingsWith(3));
    EXPECT_EQ(life.settings.current(), settingsWith(3));
  } catch (const Error& failure) {
    const std::string why = life.settings.loadFailureDescription().value_or("");
    const bool unread = !why.starts_with("write failed: ");
    EXPECT_EQ(life.settings.current(), unread ? HelperSettings() : before);
    EXPECT_EQ(failure.description(), unread ? "Helper settings storage is degraded and cannot be overwritten: " + why
                                            : why.substr(std::string("write failed: ").size()));
    const std::string left = life.text(store);
    EXPECT_THROW((void)life.settings.update(settingsWith(4)), Error);
    EXPECT_EQ(life.text(store), left);
    throw;
  }
}

// Goal:   acknowledged settings are there afterwards, whatever fails; what fails leaves the old or the new, whole.
// Method: every call of a load and a save fails, ends the process or ends the power; the next process looks.
TEST(HelperSettingsPersistence, keepsAcknowledgedSettingsWhateverFails) {
  for (const MachineState state : {MachineState::used, MachineState::fresh}) {
    const bool isUsed = state == MachineState::used;
    const HelperSettings before = isUsed ? settingsWith(2) : HelperSettings();
    const auto prepare = [&](sim::SimPosix& files) {
      prepareMachine(files, state);
      if (isUsed) (void)StoreLife(files).settings.update(before);
    };
    const auto update = [&](sim::SimPosix& files) { updateUnderFault(files, before); };
    const auto look = [&](sim::SimPosix& after, const sim::FaultRun& run) {
      return lookAtSettings(after, run, before, settingsWith(3));
    };
    EXPECT_THAT(sim::forEachFault(everyFailure, prepare, update, look), IsEmpty()) << isUsed;
  }
}

// Goal:   merged defaults are in use and named even if they can't be saved, and the store stays writable.
TEST(HelperSettingsPersistence, usesMergedDefaultsThatItCouldNotSave) {
  const auto merge = [](sim::SimPosix& files) {
    StoreLife life(files);
    const auto added = life.settings.mergeNewDefaults();
    if (life.settings.loadFailureDescription()) {
      EXPECT_THAT(added, IsEmpty());
      throw Error("test", 1, "the file could not be read");
    }
    EXPECT_EQ(added.size(), 5U);
    EXPECT_EQ(life.settings.current()->excludedPathRules.size(), 7U);
    if (life.helperLog.errors.empty()) return;
    EXPECT_THAT(life.helperLog.errors, ElementsAre(StartsWith("could not persist newly-shipped default exclusions; "
                                                              "will retry on the next launch: ")));
    throw Error("test", 1, "not saved");
  };
  const auto look = [](sim::SimPosix& after, const sim::FaultRun& run) -> std::string {
    StoreLife next(after);
    if (run.completed && next.text(store) == unmerged) return "not saved";
    (void)next.settings.mergeNewDefaults();
    return next.settings.current()->excludedPathRules.size() == 7 ? "" : "not merged";
  };
  const auto prepare = [](sim::SimPosix& files) {
    prepareMachine(files);
    StoreLife(files).put(store, unmerged);
  };
  EXPECT_THAT(sim::forEachFault(everyFailure, prepare, merge, look), IsEmpty());
}

}  // namespace
}  // namespace quillmark
