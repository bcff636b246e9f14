#include "QuillWorld.h"
#include "quill/Failures.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Words = std::vector<std::string>;
using Change = std::function<void(HelperSettings&)>;

HelperSettings own() {
  HelperSettings settings;
  settings.monitoredPaths = {"/home/ida", "/srv\x1b"};
  settings.safetySnapshotRetentionHours = 48;
  settings.excludedPathRules = {"/opt"};
  return settings;
}

TEST(Settings, areShownEachOnItsLine) {
  QuillWorld world;
  world.settings = own();
  const std::string output = world.run({"settings"}).output;
  EXPECT_THAT(output, HasSubstr("safetySnapshotRetentionHours 48\n"));
  EXPECT_THAT(output, HasSubstr("monitoredPaths [\"/home/ida\",\"/srv\\u001b\"]\n"));
  EXPECT_THAT(output, HasSubstr("automaticDeletionEnabled true\n"));
  EXPECT_EQ(world.run({"settings", "get", "monitoredPaths"}).output, "/home/ida\n/srv\\x1b\n");
  EXPECT_EQ(world.run({"settings", "get", "indexingMode"}).output, "fullScan\n");
  EXPECT_EQ(decodeJson<HelperSettings>(world.run({"settings", "--json"}).output), own());
  world.terminal.outputIsTerminal = true;
  EXPECT_THAT(world.run({"settings"}).output, HasSubstr("/home/ida, /srv\\x1b\n"));
}

TEST(Settings, setChangesOneAndNothingElse) {
  const std::pair<Words, Change> cases[] = {
      {{"automaticDeletionEnabled", "false"}, [](auto& s) { s.automaticDeletionEnabled = false; }},
      {{"monitoringProtectsSnapshots", "on"}, [](auto& s) { s.monitoringProtectsSnapshots = true; }},
      {{"safetySnapshotRetentionHours", "720"}, [](auto& s) { s.safetySnapshotRetentionHours = 720; }},
      {{"indexingMode", "disabled"}, [](auto& s) { s.indexingMode = IndexingMode::disabled; }},
      {{"monitoringSensitivity", "high"}, [](auto& s) { s.monitoringSensitivity = "high"; }},
      {{"monitoredPaths", "/a b", "/c"},
       [](auto& s) {
         s.monitoredPaths = {"/a b", "/c"};
       }},
      {{"monitoredPaths", "[]"}, [](auto& s) { s.monitoredPaths = {}; }},
      {{"excludedDirectoryNames", "[\"x\"]"}, [](auto& s) { s.excludedDirectoryNames = {"x"}; }}};
  for (const auto& [words, change] : cases) {
    QuillWorld world;
    world.settings = own();
    HelperSettings expected = own();
    change(expected);
    const Result result = world.run({"settings", "set"}, words);
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(world.settings, expected) << words[0];
    EXPECT_THAT(result.output, HasSubstr(words[0] + " "));
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1);
    EXPECT_THAT(result.errors, IsEmpty());
  }
}

TEST(Settings, editTakesWhatTheObjectNamesAndNothingElse) {
  QuillWorld world;
  world.settings = own();
  world.input = R"({"indexOnBattery": false, "excludedPathRules": ["/b", "/b", "relative"]})";
  const Result result = world.run({"settings", "edit", "-"});
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  HelperSettings expected = own();
  expected.indexOnBattery = false;
  expected.excludedPathRules = {"/b", "relative"};
  expected = expected.normalized();
  EXPECT_EQ(world.settings, expected);
  EXPECT_THAT(result.errors, HasSubstr("excludedPathRules was mended by the helper"));
  EXPECT_THAT(result.errors, Not(HasSubstr("indexOnBattery")));
  world.input = encodeJson(own());
  EXPECT_EQ(decodeJson<HelperSettings>(world.run({"settings", "edit", "-", "--json"}).output), own());
}

TEST(Settings, whatCannotBeIsRefusedBeforeTheHelperIsAsked) {
  struct Case {
    Words words;
    const char* message;
    std::string input = {};
  };
  const Case cases[] = {{{"set", "automaticDeletion", "false"}, "There is no setting \"automaticDeletion\"."},
                        {{"set", "automaticDeletionEnabled", "no way"}, "is true or false."},
                        {{"set", "automaticDeletionEnabled"}, "is missing."},
                        {{"set", "automaticDeletionEnabled", "true", "true"}, "has one value, not 2."},
                        {{"set", "safetySnapshotRetentionHours", "721"}, "is from 1 to 720 hours."},
                        {{"set", "safetySnapshotRetentionHours", "0"}, "is from 1 to 720 hours."},
                        {{"set", "safetySnapshotRetentionHours", "2d"}, "is a whole number."},
                        {{"set", "indexingMode", "fast"}, "is one of fullScan, disabled."},
                        {{"set", "monitoringSensitivity", "High"}, "is one of low, normal, high."},
                        {{"set", "monitoredPaths", "[1]"}, "JSON"},
                        {{"set", "monitoredPaths", "[1"}, "JSON"},
                        {{"set"}, "It isn't said which setting."},
                        {{"get"}, "It isn't said which setting."},
                        {{"get", "a", "b"}, "One setting at a time."},
                        {{"drop"}, "not \"drop\""},
                        {{"edit"}, "starts no editor"},
                        {{"edit", "-"}, "JSON"},
                        {{"edit", "-"}, "Settings are a JSON object.", "[]"},
                        {{"edit", "-"}, "There is no setting \"nope\".", R"({"nope": 1})"},
                        {{"edit", "-"}, "is from 1 to 720 hours.", R"({"safetySnapshotRetentionHours": 100000})"},
                        {{"edit", "-"}, "indexOnBattery", R"({"indexOnBattery": 1})"}};
  for (const Case& each : cases) {
    QuillWorld world;
    world.input = each.input;
    const Result result = world.run({"settings"}, each.words);
    EXPECT_EQ(result.exitCode, exitWrongUse) << each.message << result.output;
    EXPECT_THAT(result.errors, HasSubstr(each.message));
    EXPECT_THAT(world.helper.calls, IsEmpty());
  }
}

}  // namespace
}  // namespace quillmark::cli
