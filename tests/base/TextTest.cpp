#include <gtest/gtest.h>

#include "base/Text.h"
#include "platform/NameText.h"

namespace quillmark {
namespace {

TEST(Utf8, decodesEveryScalarThatItEncodes) {
  for (char32_t scalar = 0; scalar <= 0x10FFFF; scalar += scalar < 0x3000 ? 1 : 97) {
    if (scalar >= 0xD800 && scalar <= 0xDFFF) continue;
    std::string text;
    appendUtf8(text, scalar);
    const Utf8Step step = decodeUtf8(text, 0);
    ASSERT_EQ(step.scalar, scalar);
    ASSERT_EQ(step.length, text.size());
  }
}

TEST(Utf8, takesIllFormedBytesForWhatTheyAre) {
  struct Case {
    const char* what;
    std::string bytes;
    std::string repaired;
  };
  const std::string bad = "\xEF\xBF\xBD";
  for (const auto& [what, bytes, repaired] : std::initializer_list<Case>{
           {"lone continuation", "a\x80z", "a" + bad + "z"},
           {"overlong slash", "\xC0\xAF", bad + bad},
           {"overlong three bytes", "\xE0\x80\xAF", bad + bad + bad},
           {"surrogate", "\xED\xA0\x80", bad + bad + bad},
           {"past the last scalar", "\xF4\x90\x80\x80", bad + bad + bad + bad},
           {"cut off at the end", "x\xE2\x82", "x" + bad},
           {"cut off by another character", "\xE2\x82z", bad + "z"},
       }) {
    EXPECT_FALSE(isValidUtf8(bytes)) << what;
    EXPECT_EQ(repairUtf8(bytes), repaired) << what;
  }
}

TEST(Text, trimsEveryKindOfBlankFromBothEnds) {
  EXPECT_EQ(trimWhitespaceAndNewlines(" \t\n\xC2\xA0 a b\xE2\x80\xA8\r\n"), "a b");
  EXPECT_EQ(trimWhitespaceAndNewlines(" \xE3\x80\x80"), "");
}

TEST(NameText, leavesOrdinaryNamesAlone) {
  for (const std::string name : {"", "snap", "Größe 日本", "\xF0\x9F\x98\x80"}) EXPECT_EQ(nameText(name), name);
}

TEST(NameText, refusesTextThatSmugglesBytesPastTheChecks) {
  const std::string escapedSlash = "\xF4\x8E\xBC\xAF";  // U+10EF2F
  const std::string escapedDot = "\xF4\x8E\xBC\xAE";
  EXPECT_EQ(nameBytes(escapedSlash), "/");
  for (const std::string& text : {escapedSlash, escapedDot + escapedDot, "a" + escapedSlash + "b"}) {
    EXPECT_FALSE(isNameText(text));
  }
  EXPECT_FALSE(isNameText("\x01", NameEscapes::controls));
  EXPECT_TRUE(isNameText("\x01", NameEscapes::illFormed));
}

TEST(NameText, showsNoControlByteToATerminal) {
  EXPECT_EQ(displayName(nameText("a\xFF")), "a\\xff");
  EXPECT_EQ(displayName("x\x1B[2J"), "x\\x1b[2J");
}

}  // namespace
}  // namespace quillmark
