#include "quill/Output.h"

#include "quill/Failures.h"
#include "quill/TerminalText.h"

namespace quillmark::cli {
namespace {

using Stream = TextSink::Stream;

}  // namespace

Output::Output(TextSink& sink, const TerminalFacts& terminal, Form form)
    : sink_(sink), terminal_(terminal), form_(form) {}

void Output::line(std::string_view text) { sink_.write(Stream::output, shownText(text) + "\n"); }

void Output::text(std::string_view text) {
  std::string whole = terminal_.outputIsTerminal ? shownLines(text) : std::string(text);
  if (!whole.ends_with('\n')) whole += '\n';
  sink_.write(Stream::output, whole);
}

TableStyle Output::style() const { return {terminal_.columns, terminal_.wantsColor && form_.color}; }

void Output::table(const Table& table) {
  laidOut(terminal_.outputIsTerminal ? layOutForTerminal(table, style()) : layOutPlain(table));
}

void Output::laidOut(std::string_view lines) { sink_.write(Stream::output, lines); }

void Output::jsonText(std::string_view json) { sink_.write(Stream::output, shownJson(json) + "\n"); }

void Output::note(std::string_view text) {
  const bool color = terminal_.errorsIsTerminal && terminal_.wantsColor && form_.color;
  sink_.write(Stream::errors, toned("quill:", Tone::doubtful, color) + " " + shownText(text) + "\n");
}

void Output::warn(const Error& error) {
  const bool color = terminal_.errorsIsTerminal && terminal_.wantsColor && form_.color;
  const Tone tone = error.operationCompleted() ? Tone::doubtful : Tone::bad;
  std::string lines = toned("quill:", tone, color) + " " + shownText(error.description()) + "\n";
  if (const std::string advice = adviceOn(error); !advice.empty()) lines += shownLines(advice) + "\n";
  sink_.write(Stream::errors, lines);
}

void Output::fail(const Error& error) {
  const bool canTell =
      error.domain() != clientErrorDomain || error.code() != static_cast<long>(ClientFault::outputFailed);
  if (!form_.json || !canTell) return warn(error);
  jsonText("{\"error\":" + errorJson(error) + "}");
}

}  // namespace quillmark::cli
