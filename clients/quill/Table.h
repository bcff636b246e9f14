// Table: rows for people at a terminal, or for the next program of a pipe.
// Threads: pure.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace quillmark::cli {

enum class Tone { plain, good, doubtful, bad };

struct Column {
  std::string head;
  enum class Align { left, right } align = Align::left;
  bool mayBeCut = false;   // shortened where the terminal is too narrow
  bool mayBeLeft = false;  // left out where the terminal is too narrow, or all its cells are empty
  std::size_t least = 0;   // as wide as this where the terminal isn't too narrow, for rows that come later
};

// Raw text; laying out makes it harmless.
struct Cell {
  std::string text;
  std::optional<std::string> plain = {};  // for programs, where it differs
  Tone tone = Tone::plain;
};

struct Table {
  std::vector<Column> columns;
  std::vector<std::vector<Cell>> rows;  // each as long as columns
};

struct TableStyle {
  std::size_t width = 0;  // columns of the terminal; 0 when not known
  bool color = false;
};

// A head line, columns aligned and two blanks apart, no blanks at a line's end; nothing at all without rows. Too wide for
// the terminal it drops the columns that may be left, from the last one on, then cuts the widest that may be cut, down
// to 12 columns.
[[nodiscard]] std::string layOutForTerminal(const Table& table, const TableStyle& style);

// The same in pieces, for rows that come later: columns stay as the first rows made them. A later cell that is too wide
// is cut where its column may be, and moves the rest of its line where not.
class TerminalLayout final {
 public:
  TerminalLayout(const Table& first, const TableStyle& style);
  [[nodiscard]] std::string head() const;
  [[nodiscard]] std::string row(const std::vector<Cell>& cells) const;

 private:
  const std::vector<Column> columns_;
  const bool color_;
  std::vector<std::size_t> shown_;   // which columns
  std::vector<std::size_t> widths_;  // of all
};

// A line for each row and one word for each column, one blank apart, with no head.
[[nodiscard]] std::string layOutPlain(const Table& table);
[[nodiscard]] std::string plainRow(const std::vector<Cell>& cells);

// Colours by ECMA-48, where style.color.
[[nodiscard]] std::string toned(const std::string& text, Tone tone, bool color);

}  // namespace quillmark::cli
