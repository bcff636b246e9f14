// The person's side of the process: its three standard descriptors and what they are.
#pragma once

#include <functional>
#include <string>

#include "quill/Output.h"

namespace quillmark::cli {

// Opens /dev/null in the place of each that is closed, so that no file or socket of ours takes it. Call first of all.
void requireStandardDescriptors();

// By isatty(3), TERM, NO_COLOR (https://no-color.org) and the terminal's own word on its size, where that makes sense.
[[nodiscard]] TerminalFacts terminalFacts();

// Writes to descriptors 1 and 2. SIGPIPE must be ignored.
class DescriptorSink final : public TextSink {
 public:
  void write(Stream stream, std::string_view text) override;
  bool readerGone() const override { return readerGone_; }

 private:
  bool readerGone_ = false;  // of standard output
};

// All of standard input. Throws wrongUse past 4 MiB, which no request may exceed either.
[[nodiscard]] std::string standardInput();

// From here on SIGINT, SIGTERM and SIGHUP end the process with exit code 0: what was written stands, nothing waits.
void endAtInterrupt();
// From here on they say that indexing goes on without us, and end the process with exit code 130.
void leaveIndexingAtInterrupt();

// Asks with a text that was made harmless, and reads a line: true for "y" and "yes". Empty unless somebody sits at
// standard input and sees one of the other two. Borrows the sink.
[[nodiscard]] std::function<bool(const std::string& question)> personToAsk(TextSink& sink, const TerminalFacts& facts);

}  // namespace quillmark::cli
