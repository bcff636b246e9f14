// LiveLine: one line at the bottom of a terminal that is drawn anew in place, and leaves no trace.
// Ownership: borrows the sink.
// Threads:   one thread at a time; nothing else may draw meanwhile.
#pragma once

#include <cstddef>
#include <string>

#include "quill/Output.h"

namespace quillmark::cli {

class LiveLine final {
 public:
  LiveLine(TextSink& sink, std::size_t columns) : sink_(sink), columns_(columns) {}
  ~LiveLine() { clear(); }
  LiveLine(const LiveLine&) = delete;
  LiveLine& operator=(const LiveLine&) = delete;

  // Text that was made harmless, no wider than width().
  void show(const std::string& text);
  void clear();
  [[nodiscard]] std::size_t width() const { return columns_ - 1; }

 private:
  TextSink& sink_;
  const std::size_t columns_;
  std::string shown_;
};

}  // namespace quillmark::cli
