#include <gtest/gtest.h>

#include "scheduling/rules/SnapshotNameInfo.h"

namespace quillmark {
namespace {

using SnapshotNameInfo::Kind;
using SnapshotNameInfo::Parsed;

const Date noon = Date::from1970(1740830400);  // 2025-03-01T12:00:00Z
const std::string prefix = "com.harrowfern.Quillmark.";

TEST(SnapshotNames, parseAsTheirGrammarSays) {
  struct Case {
    std::string name;
    Parsed parsed;
  };
  const std::string stamp = "2025-03-01T12-00-00Z";
  const Kind hourly = Kind::automatic(SnapshotCadence::hourly), daily = Kind::automatic(SnapshotCadence::daily);
  for (const auto& [name, parsed] : std::vector<Case>{
           {"timeshift.2025", {Kind::unknown(), {}, {}}},
           {"com.harrowfern.quillmark.manual." + stamp, {Kind::unknown(), {}, {}}},
           {prefix, {Kind::manual(), {}, {}}},
           {prefix + "manual", {Kind::manual(), {}, {}}},
           {prefix + "safety", {Kind::safety(), {}, {}}},
           {prefix + "auto.hourly", {Kind::manual(), {}, {}}},
           {prefix + "auto.yearly." + stamp, {Kind::manual(), {}, {}}},
           {prefix + "other." + stamp, {Kind::manual(), {}, {}}},
           {prefix + "auto.hourly." + stamp, {hourly, noon, {}}},
           {prefix + "auto.daily.notadate.x", {daily, {}, "x"}},
           {prefix + "manual." + stamp + ".before-upgrade", {Kind::manual(), noon, "before-upgrade"}},
           {prefix + "manual." + stamp + ".a..b.c", {Kind::manual(), noon, "a.b.c"}},
           {prefix + "safety." + stamp, {Kind::safety(), noon, {}}},
           {prefix + "manual.2025-02-30T12-00-00Z", {Kind::manual(), {}, {}}},
           {prefix + "manual.2025-03-01T24-00-00Z", {Kind::manual(), {}, {}}},
       }) {
    EXPECT_EQ(SnapshotNameInfo::parse(name), parsed) << name;
  }
}

TEST(SnapshotNames, comeBackFromFormattingAsTheyWent) {
  for (const Kind kind : {Kind::manual(), Kind::safety(), Kind::automatic(SnapshotCadence::monthly)}) {
    for (const std::string label : {"", "plain", "with.dot", "-8"}) {
      const Parsed parsed = SnapshotNameInfo::parse(SnapshotNameInfo::format(label, kind, noon));
      EXPECT_EQ(parsed.kind, kind);
      EXPECT_EQ(parsed.utcTimestamp, noon);
      EXPECT_EQ(parsed.label.value_or(""), label);
    }
  }
  EXPECT_EQ(SnapshotNameInfo::format("before upgrade", Kind::manual(), noon),
            prefix + "manual.2025-03-01T12-00-00Z.before-upgrade");
  EXPECT_EQ(SnapshotNameInfo::format("日本", Kind::unknown(), noon), prefix + "manual.2025-03-01T12-00-00Z");
}

TEST(SnapshotNames, sanitizeLabelsByScalar) {
  const std::pair<const char*, const char*> cases[] = {{"  x  ", "-x-"},
                                                       {"a- b", "a-b"},
                                                       {"a -b", "a--b"},
                                                       {"a\xE2\x80\x8B"
                                                        "b",
                                                        "ab"},
                                                       {"größe", "gre"},
                                                       {"a/ü \n\tb", "a-b"},
                                                       {"", ""}};
  for (const auto& [label, wanted] : cases) EXPECT_EQ(SnapshotNameInfo::sanitizeLabel(label), wanted) << label;
}

TEST(SnapshotNames, areCutAt240Characters) {
  const std::size_t head = (prefix + "manual.2025-03-01T12-00-00Z.").size();
  EXPECT_EQ(SnapshotNameInfo::format(std::string(240 - head, 'a'), Kind::manual(), noon).size(), 240U);
  EXPECT_EQ(SnapshotNameInfo::format(std::string(5000, 'a'), Kind::manual(), noon),
            prefix + "manual.2025-03-01T12-00-00Z." + std::string(240 - head, 'a'));
}

}  // namespace
}  // namespace quillmark
