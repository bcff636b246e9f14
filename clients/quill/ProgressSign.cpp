#include "quill/ProgressSign.h"

namespace quillmark::cli {
namespace {

constexpr std::chrono::milliseconds moment{300};
constexpr std::chrono::milliseconds turn{120};
constexpr std::string_view signs = "|/-\\";
constexpr std::string_view eraseLine = "\r\x1b[K";

}  // namespace

struct ProgressSign::Drawing {
  Drawing(Dispatch& dispatch, TextSink& into, std::string words)
      : mutex(dispatch), sink(into), text(std::move(words)) {}

  void draw() EXCLUDES(mutex) {
    MutexLock lock(mutex);
    if (ended) return;
    const char sign = signs[turns++ % signs.size()];
    sink.write(TextSink::Stream::errors, std::string(eraseLine) + sign + " " + text);
  }
  void end() EXCLUDES(mutex) {
    MutexLock lock(mutex);
    ended = true;
    if (turns > 0) sink.write(TextSink::Stream::errors, eraseLine);
  }

  Mutex mutex;
  TextSink& sink;
  const std::string text;
  std::size_t turns GUARDED_BY(mutex) = 0;
  bool ended GUARDED_BY(mutex) = false;
};

ProgressSign::ProgressSign(Dispatch& dispatch, TextSink& sink, std::string text)
    : drawing_(std::make_shared<Drawing>(dispatch, sink, std::move(text))),
      timer_(dispatch.makeTimer(dispatch.makeQueue({.label = "com.harrowfern.quillmark.cli.progress"}),
                                [drawing = drawing_] { drawing->draw(); })) {
  timer_->fireAfter(moment, turn);
}

ProgressSign::~ProgressSign() {
  timer_->cancel();
  drawing_->end();
}

}  // namespace quillmark::cli
