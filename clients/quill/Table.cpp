#include "quill/Table.h"

#include <algorithm>
#include <numeric>

#include "quill/TerminalText.h"

namespace quillmark::cli {
namespace {

constexpr std::size_t gap = 2;
constexpr std::size_t leastCut = 16;

// Columns that are shown, each with its width.
struct Shape {
  std::vector<std::size_t> shown;
  std::vector<std::size_t> widths;  // by column of the table

  [[nodiscard]] std::size_t total() const {
    const auto add = [&](std::size_t sum, std::size_t column) { return sum + widths[column] + gap; };
    return shown.empty() ? 0 : std::accumulate(shown.begin(), shown.end(), std::size_t{0}, add) - gap;
  }
};

using Lines = std::vector<std::vector<std::string>>;

Lines shownCells(const Table& table) {
  Lines lines;
  for (const auto& row : table.rows) {
    auto& line = lines.emplace_back();
    for (const Cell& cell : row) line.push_back(shownText(cell.text));
  }
  return lines;
}

Shape naturalShape(const Table& table, const Lines& lines) {
  Shape shape;
  for (std::size_t column = 0; column < table.columns.size(); ++column) {
    const auto isEmpty = [&](const auto& line) { return line[column].empty(); };
    const bool shown = !table.columns[column].mayBeLeft || !std::all_of(lines.begin(), lines.end(), isEmpty);
    if (shown) shape.shown.push_back(column);
    std::size_t width = displayWidth(table.columns[column].head);
    for (const auto& line : lines) width = std::max(width, displayWidth(line[column]));
    shape.widths.push_back(width);
  }
  return shape;
}

void leaveOut(const Table& table, std::size_t limit, Shape& shape) {
  for (std::size_t column = table.columns.size(); column-- > 0 && shape.total() > limit;) {
    if (table.columns[column].mayBeLeft) std::erase(shape.shown, column);
  }
}

void cutDown(const Table& table, std::size_t limit, Shape& shape) {
  while (shape.total() > limit) {
    std::size_t* widest = nullptr;
    for (const std::size_t column : shape.shown) {
      std::size_t& width = shape.widths[column];
      if (table.columns[column].mayBeCut && width > leastCut && (!widest || width > *widest)) widest = &width;
    }
    if (!widest) return;
    --*widest;
  }
}

// One line of the table; `bare` without colours, by which the width is told.
class Line {
 public:
  void add(const std::string& bare, const std::string& dressed, std::size_t width, Column::Align align) {
    const std::size_t used = displayWidth(bare);
    const std::size_t blanks = width > used ? width - used : 0;
    if (align == Column::Align::right) pending_ += blanks;
    if (!bare.empty()) {
      text_ += std::string(pending_, ' ') + dressed;
      pending_ = 0;
    }
    pending_ += (align == Column::Align::left ? blanks : 0) + gap;
  }
  [[nodiscard]] std::string whole() const { return text_ + "\n"; }

 private:
  std::string text_;
  std::size_t pending_ = 0;  // blanks that are written once something follows
};

std::string bold(const std::string& text, bool color) { return color ? "\x1b[1m" + text + "\x1b[0m" : text; }

}  // namespace

std::string toned(const std::string& text, Tone tone, bool color) {
  if (!color || tone == Tone::plain || text.empty()) return text;
  const char* code = tone == Tone::good ? "\x1b[32m" : tone == Tone::doubtful ? "\x1b[33m" : "\x1b[31m";
  return code + text + "\x1b[0m";
}

std::string layOutForTerminal(const Table& table, const TableStyle& style) {
  if (table.rows.empty()) return {};
  const Lines lines = shownCells(table);
  Shape shape = naturalShape(table, lines);
  if (style.width > 0) {
    leaveOut(table, style.width, shape);
    cutDown(table, style.width, shape);
  }
  Line head;
  for (const std::size_t column : shape.shown) {
    const Column& facts = table.columns[column];
    head.add(facts.head, bold(facts.head, style.color), shape.widths[column], facts.align);
  }
  std::string text = head.whole();
  for (std::size_t row = 0; row < lines.size(); ++row) {
    Line line;
    for (const std::size_t column : shape.shown) {
      const std::string bare = shortened(lines[row][column], shape.widths[column]);
      const std::string dressed = toned(bare, table.rows[row][column].tone, style.color);
      line.add(bare, dressed, shape.widths[column], table.columns[column].align);
    }
    text += line.whole();
  }
  return text;
}

std::string layOutPlain(const Table& table) {
  std::string text;
  for (const auto& row : table.rows) {
    for (std::size_t column = 0; column < row.size(); ++column) {
      if (column > 0) text += ' ';
      text += plainWord(row[column].plain.value_or(row[column].text));
    }
    text += '\n';
  }
  return text;
}

}  // namespace quillmark::cli
