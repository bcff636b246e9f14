#include <gmock/gmock.h>

#include "base/Error.h"
#include "scheduling/rules/HelperSettings.h"
#include "wire/Json.h"

namespace quillmark {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

const Texts rulesOfVersionOne{"/cores",
                              "/macOS Install Data",
                              "/.PKInstallSandboxManager",
                              "/.PKInstallSandboxManager-SystemSoftware",
                              "/Library/InstallerSandboxes/.PKInstallSandboxManager",
                              "/.AppInstallationStaging"};

TEST(HelperSettings, normalizeListsAndHours) {
  HelperSettings settings;
  settings.excludedPathRules = {"  opt//", "/",     "//", " ",   "/a b",    "\t/opt\n",
                                "/x",      "/opt/", "",   "/x ", "/x/y///", "\xE2\x80\xA8/n\xC2\xA0"};
  settings.excludedDirectoryNames = {" a ", "", "b/c", "a", "/", "\n", "A", ".x"};
  settings.monitoringSensitivity = " as it came ";
  settings.monitoredPaths = {" /left ", " /left "};
  const HelperSettings normal = settings.normalized();
  EXPECT_THAT(normal.excludedPathRules, ElementsAre("/opt", "/a b", "/x", "/x/y", "/n"));
  EXPECT_THAT(normal.excludedDirectoryNames, ElementsAre("a", "A", ".x"));
  EXPECT_EQ(normal.monitoringSensitivity, settings.monitoringSensitivity);
  EXPECT_EQ(normal.monitoredPaths, settings.monitoredPaths);
  for (const auto& [hours, wanted] : std::vector<std::pair<std::int64_t, std::int64_t>>{
           {-9, 1}, {0, 1}, {1, 1}, {720, 720}, {721, 720}, {1000, 720}}) {
    settings.safetySnapshotRetentionHours = hours;
    EXPECT_EQ(settings.normalized().safetySnapshotRetentionHours, wanted);
  }
  EXPECT_EQ(HelperSettings().normalized(), HelperSettings());
}

TEST(HelperSettings, mergeEachVersionOfTheDefaultsOnce) {
  struct Case {
    std::optional<std::int64_t> version;
    Texts rules;
    Texts merged;
    Texts added;
  };
  Texts appended{"/mine", "/cores"};
  Texts addedToMine;
  for (const std::string& rule : rulesOfVersionOne) {
    if (rule == "/cores") continue;
    appended.push_back(rule);
    addedToMine.push_back(rule);
  }
  for (const auto& [version, rules, merged, added] :
       std::vector<Case>{{0, {}, rulesOfVersionOne, rulesOfVersionOne},
                         {std::nullopt, {"/mine", "/cores"}, appended, addedToMine},
                         {0, defaultExcludedPathRules(), defaultExcludedPathRules(), {}},
                         {1, {" /as it is/ "}, {" /as it is/ "}, {}},
                         {7, {"/mine"}, {"/mine"}, {}}}) {
    HelperSettings settings;
    settings.exclusionDefaultsVersion = version;
    settings.excludedPathRules = rules;
    const auto [result, addition] = settings.mergingNewDefaults();
    EXPECT_EQ(addition, added);
    settings.excludedPathRules = merged;
    settings.exclusionDefaultsVersion = 1;
    EXPECT_EQ(result, settings);
    EXPECT_THAT(result.mergingNewDefaults(), testing::Pair(result, IsEmpty()));
  }
}

TEST(HelperSettings, encodeEveryKeyInOrderAndOnlyFilledOptionals) {
  HelperSettings settings;
  settings.excludedPathRules = {"/a"};
  settings.excludedDirectoryNames = {"b"};
  EXPECT_EQ(encodeJson(settings),
            R"({"indexingMode":"fullScan","indexOnBattery":true,"excludedPathRules":["/a"],)"
            R"("excludedDirectoryNames":["b"],"safetySnapshotRetentionHours":24,"monitoringEnabled":true,)"
            R"("monitoredPaths":[],"monitoringSensitivity":"normal","monitoringAutoSnapshot":true,)"
            R"("monitoringProtectsSnapshots":false,"finderBadgesEnabled":false,"automaticDeletionEnabled":true,)"
            R"("measureSnapshotSizes":true,"exclusionDefaultsVersion":1})");
  settings.monitoringProtectsSnapshots.reset();
  settings.finderBadgesEnabled.reset();
  settings.measureSnapshotSizes.reset();
  settings.exclusionDefaultsVersion.reset();
  EXPECT_THAT(encodeJson(settings), HasSubstr(R"("monitoringAutoSnapshot":true,"automaticDeletionEnabled":true})"));
}

TEST(HelperSettings, decodeMissingAndNullKeysAsDefaults) {
  HelperSettings wanted;
  wanted.exclusionDefaultsVersion = 0;
  EXPECT_EQ(decodeJson<HelperSettings>("{}"), wanted);
  EXPECT_EQ(wanted.excludedPathRules.size(), 61U);
  EXPECT_EQ(wanted.excludedDirectoryNames.size(), 9U);
  EXPECT_EQ(decodeJson<HelperSettings>(
                R"({"measureSnapshotSizes":null,"exclusionDefaultsVersion":null,"indexingMode":null,"more":[1]})"),
            wanted);
  wanted.indexingMode = IndexingMode::disabled;
  wanted.excludedDirectoryNames = {};
  wanted.safetySnapshotRetentionHours = 1000;
  wanted.measureSnapshotSizes = false;
  wanted.exclusionDefaultsVersion = 1;
  EXPECT_EQ(decodeJson<HelperSettings>(
                R"({"indexingMode":"disabled","excludedDirectoryNames":[],"safetySnapshotRetentionHours":1000,)"
                R"("measureSnapshotSizes":false,"exclusionDefaultsVersion":1})"),
            wanted);
}

TEST(HelperSettings, refuseAnyKeyOfTheWrongType) {
  for (const char* key : {"indexingMode", "indexOnBattery", "excludedPathRules", "safetySnapshotRetentionHours",
                          "monitoringSensitivity", "measureSnapshotSizes", "exclusionDefaultsVersion"}) {
    EXPECT_THROW((void)decodeJson<HelperSettings>("{\"" + std::string(key) + "\":{}}"), Error) << key;
  }
  EXPECT_THROW((void)decodeJson<HelperSettings>(R"({"excludedPathRules":["/a",1]})"), Error);
  EXPECT_THROW((void)decodeJson<HelperSettings>(R"({"indexingMode":"fullscan"})"), Error);
  EXPECT_THROW((void)decodeJson<HelperSettings>("[]"), Error);
}

TEST(HelperSettings, nameTheirModesForPeople) {
  EXPECT_EQ(label(IndexingMode::fullScan), "Full scan");
  EXPECT_EQ(label(IndexingMode::disabled), "Off");
  EXPECT_THAT(std::string(description(IndexingMode::fullScan)), testing::StartsWith("Build each snapshot's index"));
  EXPECT_THAT(std::string(description(IndexingMode::disabled)), testing::EndsWith("builds their index on demand."));
}

}  // namespace
}  // namespace quillmark
