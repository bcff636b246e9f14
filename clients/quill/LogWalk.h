// The walk through a log of JSON lines: see LogWalk.
#pragma once

#include <deque>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "journal/JSONLinesReader.h"
#include "journal/LogFiles.h"
#include "platform/posix.h"
#include "quill/Failures.h"
#include "quill/LogReading.h"
#include "quill/QuillCommands.h"
#include "wire/Json.h"

namespace quillmark::cli {

// LogWalk: one command's way through a log. A Log names its record, the request with its filter and printer, the files,
// and how people call it.
// Ownership: borrows the context and the request.
// Threads:   one thread.
// Errors:    logUnreadable when a file can't be read; what was printed before stays.
template <class Log>
class LogWalk final {
 public:
  using Record = typename Log::Record;
  using Request = typename Log::Request;

  LogWalk(CommandContext& context, const Request& request)
      : context_(context), request_(request), description_(Log::description(context.paths)),
        reader_(context.posix, complaints_, description_), filter_(context, request),
        printer_(context.output, context.clock, request.full), cursorFile_(context, request.cursor) {}

  int run() {
    cursor_ = cursorFile_.load();
    request_.lines ? printLast(*request_.lines) : printAll();
    if (!printer_.printedAny() && !request_.follow) sayThereIsNone();
    save();
    while (request_.follow && context_.waitForMore()) {
      printAll();
      save();
    }
    return exitDone;
  }

 private:
  using Take = std::function<void(Record)>;

  // From the cursor to the end. A failure to print is no fault of the line at hand: it goes round the reader.
  void read(const Take& take) {
    std::exception_ptr failure;
    const auto each = [&](std::string_view line) {
      if (failure || context_.output.readerGone()) return;
      auto event = decodeJson<Record>(line);
      try {
        if (filter_.wants(event)) take(std::move(event));
      } catch (...) {
        failure = std::current_exception();
      }
    };
    bool more = true;
    while (more) {
      const auto progress = reader_.readSince(cursor_, each);
      if (failure) std::rethrow_exception(failure);
      more = progress.cursor && progress.cursor != cursor_;
      advance(progress);
    }
  }

  void advance(const JSONLinesProgress& progress) {
    if (progress.error) {
      complaints_.forget();
      throw clientError(ClientFault::logUnreadable,
                        std::string(Log::name) + " can't be read: " + *progress.error + ".");
    }
    corruptLines_ += progress.skippedCorruptLines;
    if (cursor_ && !progress.resumedCursor && progress.cursor) lostTheThread_ = true;
    if (progress.cursor) cursor_ = progress.cursor;
  }

  void tell() {
    if (lostTheThread_) {
      context_.output.note(
          "The log was rotated past the place that was read last: records may be missing, and what is left was read "
          "from its beginning.");
    }
    complaints_.tell(context_.output, corruptLines_);
    corruptLines_ = 0;
    lostTheThread_ = false;
  }

  void printAll() {
    read([&](const Record& event) { printer_.add(event); });
    printer_.flush();
    tell();
  }

  // The newest files first, as few as it takes: what was asked for mostly stands in the last one.
  void printLast(std::size_t count) {
    std::deque<Record> last;
    const auto keep = [&](Record event) {
      last.push_back(std::move(event));
      if (last.size() > count) last.pop_front();
    };
    const auto begin = cursor_;
    for (std::size_t files = 1; last.size() < count || !cursor_; files *= 4) {
      last.clear();
      complaints_.forget();
      corruptLines_ = 0;
      const auto shortcut = begin ? std::nullopt : newest(files);
      cursor_ = begin ? begin : shortcut;
      read(keep);
      if (!shortcut) break;
    }
    for (const Record& event : last) printer_.add(event);
    printer_.flush();
    tell();
  }

  // The beginning of the so-many-th file from the end; absent for all of them.
  [[nodiscard]] std::optional<JSONLinesCursor> newest(std::size_t count) const {
    const std::vector<LogFile> files = listLogFiles(context_.posix, description_);
    if (files.size() <= count) return std::nullopt;
    const FileIdentity& file = files[files.size() - count].identity;
    return JSONLinesCursor{file.deviceID, file.inode, 0};
  }

  void save() {
    if (!context_.output.readerGone()) cursorFile_.save(cursor_);
  }

  void sayThereIsNone() {
    if (context_.output.json() || !context_.output.forTerminal()) return;
    if (request_.cursor) return context_.output.line("Nothing new.");
    context_.output.line(Log::wantsAll(request_) ? "Nothing was recorded yet." : "Nothing of that kind was recorded.");
  }

  CommandContext& context_;
  const Request& request_;
  const JSONLinesDescription description_;
  Complaints complaints_;
  const LineReader reader_;
  const typename Log::Filter filter_;
  typename Log::Printer printer_;
  CursorFile cursorFile_;
  std::optional<JSONLinesCursor> cursor_;
  std::int64_t corruptLines_ = 0;  // since they were last told
  bool lostTheThread_ = false;
};

}  // namespace quillmark::cli
