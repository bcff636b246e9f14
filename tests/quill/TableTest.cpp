#include <sstream>

#include "base/Text.h"
#include "platform/NameText.h"
#include "quill/Table.h"
#include "quill/TerminalText.h"
#include "wire/JsonText.h"

namespace quillmark::cli {
namespace {

using Align = Column::Align;

TEST(TerminalText, leavesNothingThatATerminalWouldObey) {
  const std::pair<std::string, const char*> cases[] = {
      {"plain ü 漢", "plain ü 漢"},
      {"\x1b[31mred", "\\x1b[31mred"},
      {"a\nb\tc\x7f", "a\\x0ab\\x09c\\x7f"},
      {"\xc2\x9b"
       "31m",
       "\\u{9b}31m"},  // the C1 form of ESC [
      {"a\xe2\x80\xae"
       "b",
       "a\\u{202e}b"},  // right-to-left override
      {"a\xe2\x80\xa8"
       "b",
       "a\\u{2028}b"},                   // line separator
      {"bad\xff\xc3", "bad\\xff\\xc3"},  // ill formed
      {nameText("bad\xff/\x1b", NameEscapes::controls), "bad\\xff/\\x1b"},
  };
  for (const auto& [text, shown] : cases) EXPECT_EQ(shownText(text), shown);
  EXPECT_EQ(shownLines("a\n\tb\x1b\n"), "a\n\tb\\x1b\n");
}

TEST(TerminalText, everyScalarStaysOneLineAndWellFormed) {
  for (char32_t scalar = 0; scalar <= 0x10FFFF; ++scalar) {
    if (scalar >= 0xD800 && scalar <= 0xDFFF) continue;
    std::string text;
    appendUtf8(text, scalar);
    const std::string shown = shownText(text);
    ASSERT_TRUE(isValidUtf8(shown)) << static_cast<unsigned>(scalar);
    for (const char c : shown)
      ASSERT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) << static_cast<unsigned>(scalar);
    ASSERT_EQ(shownText(shown), shown);
  }
}

TEST(TerminalText, jsonKeepsItsValue) {
  const std::string text = "{\"a\":\"x\xc2\x9b\xe2\x80\xaey\",\"b\":[1,\n2]}";
  const std::string shown = shownJson(text);
  EXPECT_EQ(shown, "{\"a\":\"x\\u009b\\u202ey\",\"b\":[1,\n2]}");
  EXPECT_EQ(ParsedJson(shown).value(), ParsedJson(text).value());
}

TEST(TerminalText, widthsAreThoseOfATerminal) {
  const std::pair<const char*, std::size_t> cases[] = {{"", 0},   {"abc", 3}, {"ü", 1},  {"u\xcc\x88", 1}, {"漢字", 4},
                                                       {"ｆ", 2}, {"😀", 2},   {"한", 2}, {"…", 1}};
  for (const auto& [text, width] : cases) EXPECT_EQ(displayWidth(text), width) << text;
}

// Property: never wider than asked, front and back of what was given, whole characters.
TEST(TerminalText, shorteningFitsAndKeepsBothEnds) {
  const std::string text =
      "漢u\xcc\x88"
      "bc字de漢f";
  for (std::size_t width = 0; width <= displayWidth(text) + 1; ++width) {
    const std::string cut = shortened(text, width);
    EXPECT_LE(displayWidth(cut), width);
    EXPECT_TRUE(isValidUtf8(cut));
    if (width >= displayWidth(text)) {
      EXPECT_EQ(cut, text);
      continue;
    }
    const std::size_t mark = cut.find("…");
    if (width == 0) continue;
    ASSERT_NE(mark, std::string::npos);
    EXPECT_TRUE(text.starts_with(cut.substr(0, mark)));
    EXPECT_TRUE(text.ends_with(cut.substr(mark + std::string_view("…").size())));
  }
}

Table someTable() {
  return {
      {{.head = "NAME", .mayBeCut = true}, {.head = "XID", .align = Align::right}, {.head = "BUS", .mayBeLeft = true}},
      {{{"漢字"}, {"7"}, {"NVMe"}}, {{"a\nb"}, {"1234"}, {""}}}};
}

TEST(Table, alignsByWidthOnATerminal) {
  EXPECT_EQ(layOutForTerminal(someTable(), {}),
            "NAME     XID  BUS\n"
            "漢字       7  NVMe\n"
            "a\\x0ab  1234\n");
  EXPECT_EQ(layOutForTerminal({someTable().columns, {}}, {}), "");
}

TEST(Table, coloursDontMoveColumns) {
  Table table{{{.head = "A"}, {.head = "B"}}, {{{"bad", std::nullopt, Tone::bad}, {"x"}}}};
  EXPECT_EQ(layOutForTerminal(table, {.width = 0, .color = true}),
            "\x1b[1mA\x1b[0m    \x1b[1mB\x1b[0m\n\x1b[31mbad\x1b[0m  x\n");
}

TEST(Table, dropsAndCutsToFitATerminal) {
  Table table = someTable();
  table.rows[0][0].text = "a-name-of-thirty-characters-xx";
  EXPECT_EQ(layOutForTerminal(table, {.width = 36}),
            "NAME                             XID\n"
            "a-name-of-thirty-characters-xx     7\n"
            "a\\x0ab                          1234\n");
  EXPECT_EQ(layOutForTerminal(table, {.width = 30}),
            "NAME                       XID\n"
            "a-name-of-th…aracters-xx     7\n"
            "a\\x0ab                    1234\n");
  std::istringstream narrow(layOutForTerminal(table, {.width = 5}));
  for (std::string line; std::getline(narrow, line);) EXPECT_LE(displayWidth(line), 16u + 2 + 4);
}

TEST(Table, leavesOutAnEmptyColumnThatMayBeLeft) {
  Table table = someTable();
  table.rows[0][2].text.clear();
  EXPECT_EQ(layOutForTerminal(table, {}).find("BUS"), std::string::npos);
}

// Property: whatever the cells hold, each line splits at blanks into one word a column.
TEST(Table, isWordsForPrograms) {
  Table table = someTable();
  table.rows[0] = {{"two words\n"}, {"7", "bytes 7"}, {" "}};
  EXPECT_EQ(layOutPlain(table), "two\\x20words\\x0a bytes\\x207 \\x20\na\\x0ab 1234 -\n");
}

}  // namespace
}  // namespace quillmark::cli
