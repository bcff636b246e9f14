// LogPrinter: prints records of the activity log as they come, without end and in bounded memory.
// Ownership: borrows the output and the clock.
// Threads:   one thread at a time.
// Errors:    as Output.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "journal/HelperEvent.h"
#include "platform/clock.h"
#include "quill/Output.h"

namespace quillmark::cli {

class LogPrinter final {
 public:
  LogPrinter(Output& output, Clock& clock, bool full) : output_(output), clock_(clock), full_(full) {}

  void add(const HelperEvent& event);
  // What was added is on its way to the reader when it returns.
  void flush();
  [[nodiscard]] bool printedAny() const { return printedAny_; }

 private:
  struct Row {
    std::vector<Cell> cells;
    std::string failure;  // stands below its line
  };

  [[nodiscard]] std::string jsonLine(const HelperEvent& event) const;
  [[nodiscard]] std::string plainLine(const HelperEvent& event) const;
  [[nodiscard]] Row rowOf(const HelperEvent& event) const;
  void addRow(Row row);
  void layOut(const std::vector<Row>& rows);

  Output& output_;
  Clock& clock_;
  const bool full_;
  bool printedAny_ = false;
  std::string text_;                      // laid out, not yet written
  std::vector<Row> first_;                // not yet laid out: they decide how wide the columns are
  std::optional<TerminalLayout> layout_;  // once they did
};

}  // namespace quillmark::cli
