// Text on its way to people: nothing in a name may move a cursor, reorder a line or break a table.
// Units:   widths in the columns of a terminal.
// Threads: pure.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quillmark::cli {

// One line: escapes and control bytes as \xNN, other control and direction scalars as \u{N}.
[[nodiscard]] std::string shownText(std::string_view text);
// The same with line feeds and tabs left as they are.
[[nodiscard]] std::string shownLines(std::string_view text);
// One word for programs that split at blanks: shownText with its blanks as \x20, and "-" for nothing.
[[nodiscard]] std::string plainWord(std::string_view text);
// Well-formed JSON in, the same value out, without a scalar that a terminal would obey.
[[nodiscard]] std::string shownJson(std::string_view json);

// Marks that combine take none, wide East Asian characters take two (UAX #11).
[[nodiscard]] std::size_t displayWidth(std::string_view text);
// At most this wide, the middle replaced by "…" where it is cut.
[[nodiscard]] std::string shortened(std::string_view text, std::size_t width);

}  // namespace quillmark::cli
