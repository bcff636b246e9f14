// LogRows: prints rows as they come, without end and in bounded memory; the first few decide how wide the columns are.
// Ownership: borrows the output.
// Threads:   one thread at a time.
// Errors:    as Output.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "quill/Output.h"

namespace quillmark::cli {

class LogRows final {
 public:
  struct Row {
    std::vector<Cell> cells;
    std::vector<Cell> below = {};  // each stands on a line below, where it isn't empty
  };

  // The table gives the columns of a terminal.
  LogRows(Output& output, Table columns) : output_(output), columns_(std::move(columns)) {}

  // For people.
  void add(Row row);
  // A line for programs, made harmless already, with its line feed.
  void add(std::string_view line);
  // What was added is on its way to the reader when it returns.
  void flush();
  [[nodiscard]] bool printedAny() const { return printedAny_; }

 private:
  void layOut(const std::vector<Row>& rows);
  void flushMuch();

  Output& output_;
  const Table columns_;
  bool printedAny_ = false;
  std::string text_;                      // laid out, not yet written
  std::vector<Row> first_;                // not yet laid out
  std::optional<TerminalLayout> layout_;  // once they are
};

}  // namespace quillmark::cli
