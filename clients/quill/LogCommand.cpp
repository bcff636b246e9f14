#include <fmt/format.h>

#include <deque>
#include <exception>

#include "journal/JSONLinesReader.h"
#include "journal/LogFiles.h"
#include "platform/Files.h"
#include "platform/PlatformLog.h"
#include "platform/posix.h"
#include "quill/Failures.h"
#include "quill/LogFilter.h"
#include "quill/LogPrinter.h"
#include "quill/QuillCommands.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

// Longer than any cursor.
constexpr std::size_t cursorFileLimit = 4096;
constexpr std::uint32_t cursorFileMode = 0644;

Error unreadable(const std::string& what) {
  return clientError(ClientFault::logUnreadable, "The activity log can't be read: " + what + ".");
}

// Keeps what a read complains of, for the person; past a few lines their number is enough.
class Complaints final : public PlatformLog {
 public:
  void log(PlatformLogType, std::string_view, std::string_view, std::string_view message) override {
    if (told_.size() < mostTold) told_.emplace_back(message);
  }
  void forget() { told_.clear(); }
  void tell(Output& output, std::int64_t corruptLines) {
    for (const std::string& message : told_) output.note(message);
    const auto told = static_cast<std::int64_t>(told_.size());
    if (corruptLines > told) output.note(fmt::format("and {} more lines that can't be read", corruptLines - told));
    forget();
  }

 private:
  static constexpr std::size_t mostTold = 5;
  std::vector<std::string> told_;
};

class CursorFile final {
 public:
  CursorFile(CommandContext& context, const std::optional<std::string>& path) : context_(context), path_(path) {}

  // Absent on the first day. Refuses a file of somebody else's, which save() would replace.
  [[nodiscard]] std::optional<JSONLinesCursor> load() const {
    if (!path_) return std::nullopt;
    const auto text = readFile(context_.posix, *path_, cursorFileLimit);
    if (!text || text->empty()) return std::nullopt;
    try {
      return decodeJson<JSONLinesCursor>(*text);
    } catch (const Error&) {
      throw wrongUse(fmt::format("\"{}\" holds something else than how far the log was read.", *path_),
                     "It was left as it is. Name another file, or remove it to begin anew.");
    }
  }

  void save(const std::optional<JSONLinesCursor>& cursor) {
    if (!path_ || !cursor || cursor == saved_) return;
    writeAtomically(context_.posix, context_.random, *path_, encodeJson(*cursor) + "\n", cursorFileMode);
    saved_ = cursor;
  }

 private:
  CommandContext& context_;
  const std::optional<std::string>& path_;
  std::optional<JSONLinesCursor> saved_;
};

// One command's way through the log.
class LogWalk final {
 public:
  LogWalk(CommandContext& context, const LogRequest& request)
      : context_(context), request_(request), description_(activityLogDescription(context.paths)),
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
  using Take = std::function<void(HelperEvent)>;

  // From the cursor to the end. A failure to print is no fault of the line at hand: it goes round the reader.
  void read(const Take& take) {
    std::exception_ptr failure;
    const auto each = [&](std::string_view line) {
      if (failure || context_.output.readerGone()) return;
      HelperEvent event = decodeJson<HelperEvent>(line);
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
      throw unreadable(*progress.error);
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
    read([&](const HelperEvent& event) { printer_.add(event); });
    printer_.flush();
    tell();
  }

  // The newest files first, as few as it takes: what was asked for mostly stands in the last one.
  void printLast(std::size_t count) {
    std::deque<HelperEvent> last;
    const auto keep = [&](HelperEvent event) {
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
    for (const HelperEvent& event : last) printer_.add(event);
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
    const bool all = request_.kinds.empty() && !request_.volume && !request_.since && !request_.failed;
    if (request_.cursor) return context_.output.line("Nothing new.");
    context_.output.line(all ? "Nothing was recorded yet." : "Nothing of that kind was recorded.");
  }

  CommandContext& context_;
  const LogRequest& request_;
  const JSONLinesDescription description_;
  Complaints complaints_;
  const LineReader reader_;
  const LogFilter filter_;
  LogPrinter printer_;
  CursorFile cursorFile_;
  std::optional<JSONLinesCursor> cursor_;
  std::int64_t corruptLines_ = 0;  // since they were last told
  bool lostTheThread_ = false;
};

}  // namespace

int run(CommandContext& context, const LogRequest& request) { return LogWalk(context, request).run(); }

}  // namespace quillmark::cli
