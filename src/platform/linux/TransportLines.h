// The two directions of a stream of lines: LineSplitter cuts what arrives, LineQueue holds what waits to be sent.
// Threads: thread-compatible.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <deque>
#include <span>
#include <string>
#include <string_view>

#include "base/FunctionRef.h"

namespace quillmark::os {

// Looks at each byte once; keeps at most one line's beginning.
class LineSplitter final {
 public:
  explicit LineSplitter(std::size_t maxLineBytes) : maxLineBytes_(maxLineBytes) {}
  // Gives each line that is complete, without its newline. False for a line that is too long: the stream is then lost.
  [[nodiscard]] bool feed(std::string_view bytes, FunctionRef<void(std::string)> line);

 private:
  const std::size_t maxLineBytes_;
  std::string begun_;
};

// Small lines share chunks; a large one is kept as it came.
class LineQueue final {
 public:
  void append(std::string line);
  [[nodiscard]] std::size_t bytes() const { return bytes_; }
  [[nodiscard]] bool empty() const { return bytes_ == 0; }
  // Fills the pieces with what comes next, at most maxBytes of it; answers how many it filled.
  [[nodiscard]] std::size_t next(std::span<iovec> pieces, std::size_t maxBytes) const;
  void consume(std::size_t bytes);
  void clear();

 private:
  std::deque<std::string> chunks_;
  std::size_t sentOfFirst_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace quillmark::os
