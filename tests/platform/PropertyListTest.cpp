#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "base/Error.h"
#include "platform/linux/PropertyList.h"

namespace quillmark::os {
namespace {

std::string document(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body + "</plist>\n";
}

PropertyList parse(const std::string& text) { return LinuxPropertyLists().parse(text); }

bool sameScalar(const PropertyList& a, const PropertyList& b) {
  if (a.value().index() != b.value().index()) return false;
  return (a.string() && *a.string() == *b.string()) || (a.boolean() && *a.boolean() == *b.boolean()) ||
         (a.unsignedNumber() && a.unsignedNumber() == b.unsignedNumber());
}

TEST(PropertyLists, ComeBackAsTheyWereWritten) {
  using Value = PropertyList::Value;
  PropertyDictionary entries;
  entries.emplace_back("name", Value(std::string("a<b>&\"\xC3\xA4\U0010EF0A")));
  entries.emplace_back("largest", Value(std::numeric_limits<std::uint64_t>::max()));
  entries.emplace_back("above", Value(std::uint64_t{1} << 63));
  entries.emplace_back("signed", Value(std::int64_t{std::numeric_limits<std::int64_t>::max()}));
  entries.emplace_back("negative", Value(std::int64_t{-5}));
  entries.emplace_back("least", Value(std::numeric_limits<std::int64_t>::min()));
  entries.emplace_back("real", Value(2.5));
  entries.emplace_back("yes", Value(true));
  entries.emplace_back("rows", Value(PropertyArray{Value(std::string("x")), Value(PropertyDictionary{})}));
  const PropertyList back = parse(LinuxPropertyLists().write(Value(entries)));
  ASSERT_TRUE(back.dictionary());
  ASSERT_EQ(back.dictionary()->size(), entries.size());
  for (const auto& [key, value] : entries) {
    const PropertyList* found = back.find(key);
    ASSERT_TRUE(found) << key;
    const bool isSame = key == "rows" || sameScalar(*found, value);
    EXPECT_TRUE(isSame) << key;
  }
  EXPECT_EQ(back.find("largest")->unsignedNumber(), std::numeric_limits<std::uint64_t>::max());
  ASSERT_EQ(back.find("rows")->array()->size(), 2u);
}

TEST(PropertyLists, RefuseWhatIsNone) {
  const std::string deep = [] {
    std::string text;
    for (int i = 0; i < 100'000; ++i) text += "<array>";
    return text;
  }();
  std::string hidden;
  for (int i = 0; i < 200; ++i) hidden += "<array><!-- </array> -->";
  for (const std::string& text :
       {std::string(), std::string("no list"), std::string("bplist00\x08"), std::string("<plist"), document(deep),
        document(hidden), document("<dict><key>a</key>"), std::string(16 * 1024 * 1024 + 1, ' ')}) {
    EXPECT_THROW(static_cast<void>(parse(text)), Error) << text.substr(0, 60);
  }
  EXPECT_NO_THROW(static_cast<void>(parse(document("<!-- said --><array><string>a</string></array>"))));
}

// Goal:   no text brings the service down.
// Method: a real list with random bytes changed, cut out and doubled; it may be refused, it may not crash.
TEST(PropertyLists, SurviveDamagedText) {
  const std::string whole = document(
      "<dict><key>Snapshots</key><array><dict><key>SnapshotName</key><string>a&amp;b</string><key>SnapshotXID</key>"
      "<integer>18446744073709551615</integer></dict><dict><key>d</key><date>2026-03-01T00:00:00Z</date><key>x</key>"
      "<data>AAAA</data><key>r</key><real>1.5</real><key>t</key><true/></dict></array></dict>");
  std::mt19937 random(7);
  int accepted = 0;
  for (int i = 0; i < 20'000; ++i) {
    std::string text = whole;
    for (std::size_t edits = 1 + random() % 4; edits > 0 && !text.empty(); --edits) {
      const std::size_t at = random() % text.size(), length = 1 + random() % 12;
      switch (random() % 3) {
        case 0: text[at] = static_cast<char>(random()); break;
        case 1: text.erase(at, length); break;
        default: text.insert(at, text.substr(random() % text.size(), length));
      }
    }
    try {
      static_cast<void>(parse(text));
      ++accepted;
    } catch (const Error&) {
    }
  }
  EXPECT_GT(accepted, 0);
}

}  // namespace
}  // namespace quillmark::os
