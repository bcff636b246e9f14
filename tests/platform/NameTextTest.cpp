#include <gtest/gtest.h>

#include <random>

#include "base/Text.h"
#include "platform/NameText.h"

namespace quillmark {
namespace {

TEST(NameText, OrdinaryNamesAreThemselvesAndOtherBytesAreEscaped) {
  struct Case {
    std::string bytes, text, controlsText;
  };
  const std::vector<Case> cases = {
      {"plain name.txt", "plain name.txt", "plain name.txt"},
      {"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80",
       "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"},
      {"a\nb\x7F", "a\nb\x7F", "a\U0010EF0Ab\U0010EF7F"},
      {"\xC3", "\U0010EFC3", "\U0010EFC3"},
      {"\xE2\x82", "\U0010EFE2\U0010EF82", "\U0010EFE2\U0010EF82"},
      {"\xED\xA0\x80", "\U0010EFED\U0010EFA0\U0010EF80", "\U0010EFED\U0010EFA0\U0010EF80"},
      // The scalar U+10EF2F as bytes: it mustn't be taken for an escaped "/".
      {"\xF4\x8E\xBC\xAF", "\U0010EFF4\U0010EF8E\U0010EFBC\U0010EFAF", "\U0010EFF4\U0010EF8E\U0010EFBC\U0010EFAF"},
  };
  for (const Case& test : cases) {
    EXPECT_EQ(nameText(test.bytes), test.text);
    EXPECT_EQ(nameText(test.bytes, NameEscapes::controls), test.controlsText);
  }
  EXPECT_EQ(displayName("a\U0010EFFF\n"), "a\\xff\\x0a");
}

TEST(NameText, TextThatNoNameHasIsRefused) {
  for (const char* text : {"\U0010EF2F", "\U0010EF2E\U0010EF2E", "\U0010EFC3\U0010EFA4", "\xFF"}) {
    EXPECT_FALSE(isNameText(text)) << text;
  }
  EXPECT_TRUE(isNameText("\U0010EFC3x"));
  EXPECT_FALSE(isNameText("\U0010EF0A"));
  EXPECT_TRUE(isNameText("\U0010EF0A", NameEscapes::controls));
  EXPECT_FALSE(isNameText("\n", NameEscapes::controls));
}

TEST(NameText, AnyBytesComeBackFromWellFormedText) {
  std::mt19937 random(1);
  for (int i = 0; i < 50'000; ++i) {
    std::string bytes(random() % 12, '\0');
    // Mostly bytes near the borders of UTF-8.
    for (char& byte : bytes)
      byte = static_cast<char>(random() % 2 ? random() : "\xF4\x8E\xBC\xBF\xED\xE0\x80\x2F"[random() % 8]);
    for (const NameEscapes escapes : {NameEscapes::illFormed, NameEscapes::controls}) {
      const std::string text = nameText(bytes, escapes);
      EXPECT_TRUE(isValidUtf8(text));
      EXPECT_EQ(nameBytes(text), bytes);
      EXPECT_TRUE(isNameText(text, escapes));
    }
  }
}

}  // namespace
}  // namespace quillmark
