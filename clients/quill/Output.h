// Output: what quill says, and in which form. Values go to standard output, all else to standard error.
// Ownership: borrows the sink.
// Threads:   one thread at a time; the sink is also written to by the progress sign.
// Errors:    outputFailed when a stream can't be written, but for a reader that went away: then nothing more is
//            written to it and nobody is told.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "base/Error.h"
#include "quill/Table.h"

namespace quillmark::cli {

class TextSink {
 public:
  enum class Stream { output, errors };
  virtual ~TextSink() = default;
  virtual void write(Stream stream, std::string_view text) = 0;
  // Whoever read standard output went away.
  [[nodiscard]] virtual bool readerGone() const { return false; }
};

// What the two streams are.
struct TerminalFacts {
  bool inputIsTerminal = false;
  bool outputIsTerminal = false;
  bool errorsIsTerminal = false;
  bool obeysEscapes = false;  // the terminal's type is known to
  bool wantsColor = false;
  std::size_t columns = 0;  // 0 when not known
};

class Output final {
 public:
  struct Form {
    bool json = false;
    bool color = true;  // where the terminal has it
  };

  Output(TextSink& sink, const TerminalFacts& terminal, Form form);

  [[nodiscard]] bool json() const { return form_.json; }
  [[nodiscard]] bool forTerminal() const { return terminal_.outputIsTerminal; }

  // A value of one line.
  void line(std::string_view text);
  // A text of several lines; as it is unless a terminal shows it.
  void text(std::string_view text);
  void table(const Table& table);
  void jsonText(std::string_view json);
  // Lines that were made harmless already, by a layout or as JSON.
  void laidOut(std::string_view lines);
  [[nodiscard]] TableStyle style() const;
  [[nodiscard]] bool readerGone() const { return sink_.readerGone(); }

  // "quill: …" on standard error: something to know, no failure.
  void note(std::string_view text);
  // "quill: …" and the advice below.
  void warn(const Error& error);
  // As warn; as JSON a document on standard output instead, where that takes it.
  void fail(const Error& error);

 private:
  TextSink& sink_;
  const TerminalFacts terminal_;
  const Form form_;
};

}  // namespace quillmark::cli
