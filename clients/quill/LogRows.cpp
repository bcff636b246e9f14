#include "quill/LogRows.h"

#include "quill/TerminalText.h"

namespace quillmark::cli {
namespace {

constexpr std::size_t firstRows = 200;
constexpr std::size_t enoughToWrite = 16 * 1024;

}  // namespace

void LogRows::add(Row row) {
  printedAny_ = true;
  if (layout_) {
    layOut({std::move(row)});
  } else {
    first_.push_back(std::move(row));
    if (first_.size() < firstRows) return;
    layOut(first_);
    first_.clear();
  }
  flushMuch();
}

void LogRows::add(std::string_view line) {
  printedAny_ = true;
  text_ += line;
  flushMuch();
}

void LogRows::flushMuch() {
  if (text_.size() >= enoughToWrite) flush();
}

void LogRows::flush() {
  if (!first_.empty()) layOut(first_);
  first_.clear();
  if (!text_.empty()) output_.laidOut(text_);
  text_.clear();
}

void LogRows::layOut(const std::vector<Row>& rows) {
  if (!layout_) {
    Table first = columns_;
    for (const Row& row : rows) first.rows.push_back(row.cells);
    layout_.emplace(first, output_.style());
    text_ += layout_->head();
  }
  for (const Row& row : rows) {
    text_ += layout_->row(row.cells);
    for (const Cell& below : row.below) {
      if (!below.text.empty()) text_ += "  " + toned(shownText(below.text), below.tone, output_.style().color) + "\n";
    }
  }
}

}  // namespace quillmark::cli
