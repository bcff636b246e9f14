// ProgressSign: tells somebody at a terminal that work goes on, once it takes longer than a moment, and leaves no trace.
// Ownership: borrows the dispatch layer and the sink.
// Threads:   made and dropped by one thread; draws from a queue of its own. Nothing is drawn once it is dropped.
#pragma once

#include <memory>
#include <string>

#include "platform/dispatch.h"
#include "quill/Output.h"

namespace quillmark::cli {

class ProgressSign final {
 public:
  ProgressSign(Dispatch& dispatch, TextSink& sink, std::string text);
  ~ProgressSign();
  ProgressSign(const ProgressSign&) = delete;
  ProgressSign& operator=(const ProgressSign&) = delete;

 private:
  struct Drawing;

  const std::shared_ptr<Drawing> drawing_;
  const std::unique_ptr<Timer> timer_;
};

}  // namespace quillmark::cli
