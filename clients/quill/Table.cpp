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
    shape.shown.push_back(column);
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

std::string padded(const std::string& text, const std::string& bare, std::size_t width, Column::Align align,
                   bool last) {
  const std::size_t used = displayWidth(bare);
  const std::string blanks(width > used ? width - used : 0, ' ');
  if (align == Column::Align::right) return blanks + text;
  return last ? text : text + blanks;
}

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
  std::string text;
  const auto append = [&](std::size_t at, const std::string& bare, const std::string& dressed) {
    const std::size_t column = shape.shown[at];
    const bool last = at + 1 == shape.shown.size();
    text += padded(dressed, bare, shape.widths[column], table.columns[column].align, last);
    text += last ? "\n" : std::string(gap, ' ');
  };
  for (std::size_t at = 0; at < shape.shown.size(); ++at) {
    const std::string& head = table.columns[shape.shown[at]].head;
    append(at, head, style.color ? "\x1b[1m" + head + "\x1b[0m" : head);
  }
  for (std::size_t row = 0; row < lines.size(); ++row) {
    for (std::size_t at = 0; at < shape.shown.size(); ++at) {
      const std::size_t column = shape.shown[at];
      const std::string bare = shortened(lines[row][column], shape.widths[column]);
      append(at, bare, toned(bare, table.rows[row][column].tone, style.color));
    }
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
