#include "quill/LiveLine.h"

namespace quillmark::cli {
namespace {

constexpr std::string_view eraseLine = "\r\x1b[K";

}  // namespace

void LiveLine::show(const std::string& text) {
  if (text == shown_) return;
  shown_ = text;
  sink_.write(TextSink::Stream::errors, std::string(eraseLine) + text);
}

void LiveLine::clear() {
  if (!shown_.empty()) sink_.write(TextSink::Stream::errors, eraseLine);
  shown_.clear();
}

}  // namespace quillmark::cli
