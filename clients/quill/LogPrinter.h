// LogPrinter, NoticePrinter: print the records of the logs as they come.
// Ownership: borrow the output and the clock.
// Threads:   one thread at a time.
// Errors:    as Output.
#pragma once

#include "journal/HelperEvent.h"
#include "journal/HelperNotification.h"
#include "platform/clock.h"
#include "quill/LogRows.h"

namespace quillmark::cli {

class LogPrinter final {
 public:
  LogPrinter(Output& output, Clock& clock, bool full);

  void add(const HelperEvent& event);
  void flush() { rows_.flush(); }
  [[nodiscard]] bool printedAny() const { return rows_.printedAny(); }

 private:
  [[nodiscard]] std::string plainLine(const HelperEvent& event) const;
  [[nodiscard]] LogRows::Row rowOf(const HelperEvent& event) const;

  Output& output_;
  Clock& clock_;
  const bool full_;
  LogRows rows_;
};

class NoticePrinter final {
 public:
  NoticePrinter(Output& output, Clock& clock, bool full);

  void add(const HelperNotification& notice);
  void flush() { rows_.flush(); }
  [[nodiscard]] bool printedAny() const { return rows_.printedAny(); }

 private:
  [[nodiscard]] std::string plainLine(const HelperNotification& notice) const;
  [[nodiscard]] LogRows::Row rowOf(const HelperNotification& notice) const;

  Output& output_;
  Clock& clock_;
  LogRows rows_;
};

}  // namespace quillmark::cli
