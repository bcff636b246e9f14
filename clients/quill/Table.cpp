#include "quill/Table.h"

#include <algorithm>
#include <numeric>

#include "quill/TerminalText.h"

namespace quillmark::cli {
namespace {

constexpr std::size_t gap = 2;
constexpr std::size_t leastCut = 12;

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
    const Column& facts = table.columns[column];
    const bool shown = !facts.mayBeLeft || facts.least > 0 || !std::all_of(lines.begin(), lines.end(), isEmpty);
    if (shown) shape.shown.push_back(column);
    std::size_t width = std::max(displayWidth(facts.head), facts.least);
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

TerminalLayout::TerminalLayout(const Table& first, const TableStyle& style)
    : columns_(first.columns), color_(style.color) {
  Shape shape = naturalShape(first, shownCells(first));
  if (style.width > 0) {
    leaveOut(first, style.width, shape);
    cutDown(first, style.width, shape);
  }
  shown_ = std::move(shape.shown);
  widths_ = std::move(shape.widths);
}

std::string TerminalLayout::head() const {
  Line line;
  for (const std::size_t column : shown_) {
    const Column& facts = columns_[column];
    line.add(facts.head, bold(facts.head, color_), widths_[column], facts.align);
  }
  return line.whole();
}

std::string TerminalLayout::row(const std::vector<Cell>& cells) const {
  Line line;
  for (const std::size_t column : shown_) {
    std::string bare = shownText(cells[column].text);
    if (columns_[column].mayBeCut) bare = shortened(bare, widths_[column]);
    line.add(bare, toned(bare, cells[column].tone, color_), widths_[column], columns_[column].align);
  }
  return line.whole();
}

std::string layOutForTerminal(const Table& table, const TableStyle& style) {
  if (table.rows.empty()) return {};
  const TerminalLayout layout(table, style);
  std::string text = layout.head();
  for (const auto& row : table.rows) text += layout.row(row);
  return text;
}

std::string plainRow(const std::vector<Cell>& cells) {
  std::string text;
  for (const Cell& cell : cells) {
    if (!text.empty()) text += ' ';
    text += plainWord(cell.plain.value_or(cell.text));
  }
  return text + '\n';
}

std::string layOutPlain(const Table& table) {
  std::string text;
  for (const auto& row : table.rows) text += plainRow(row);
  return text;
}

}  // namespace quillmark::cli
