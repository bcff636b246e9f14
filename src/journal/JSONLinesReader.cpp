#include "journal/JSONLinesReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <span>
#include <vector>

#include "base/Error.h"
#include "journal/LogFiles.h"
#include "platform/PlatformLog.h"
#include "platform/posix.h"

namespace quillmark {
namespace {

constexpr std::size_t chunkBytes = std::size_t{64} << 10;
constexpr std::uint64_t maxBatchBytes = std::uint64_t{256} << 20;
// A damaged file mustn't flood the machine's log.
constexpr std::int64_t maxLoggedLines = 1000;
// In one read the writer gets round to a rotation once, or never.
constexpr int maxAttempts = 32;

bool sameNames(const std::vector<LogFile>& a, const std::vector<LogFile>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const LogFile& left, const LogFile& right) {
    return left.name == right.name && left.identity == right.identity;
  });
}

// One pass of a reader.
class Read final {
 public:
  Read(Posix& posix, PlatformLog& log, const JSONLinesDescription& description,
       FunctionRef<void(std::string_view line)> take)
      : posix_(posix), log_(log), description_(description), take_(take) {}

  JSONLinesProgress run(std::optional<JSONLinesCursor> cursor) {
    position_ = cursor;
    for (int attempt = 0; attempt < maxAttempts; ++attempt) {
      const std::vector<LogFile> files = settledFiles();
      if (readFrom(files)) return std::move(progress_);
    }
    throw jsonLinesError("open(" + description_.currentPath() + ")", EAGAIN);
  }

 private:
  enum class Outcome { goOn, enough, moved };

  // A listing made while a file is renamed may show it under no name at all; two that agree have seen them all.
  [[nodiscard]] std::vector<LogFile> settledFiles() {
    std::vector<LogFile> files = listLogFiles(posix_, description_);
    for (int attempt = 0; attempt < maxAttempts; ++attempt) {
      std::vector<LogFile> again = listLogFiles(posix_, description_);
      if (sameNames(files, again)) return again;
      files = std::move(again);
    }
    throw jsonLinesError("readdir(" + description_.directoryPath + ")", EAGAIN);
  }

  // False when the files have moved since they were listed; position_ is then where to go on.
  [[nodiscard]] bool readFrom(const std::vector<LogFile>& files) {
    auto file = std::find_if(files.begin(), files.end(), [&](const LogFile& candidate) {
      return position_ && candidate.identity == position_->file() && position_->offset <= candidate.size;
    });
    const bool found = file != files.end();
    if (!found) {
      file = files.begin();
      position_.reset();
    }
    if (!begun_) progress_.resumedCursor = found;
    for (; file != files.end(); ++file) {
      const Outcome outcome = readFile(*file);
      if (outcome != Outcome::goOn) return outcome == Outcome::enough;
    }
    return true;
  }

  [[nodiscard]] Outcome readFile(const LogFile& file) {
    const SysResult<int> fd = posix_.open(file.path, {.read = true, .noFollow = true});
    if (!fd && fd.error() == ENOENT) return Outcome::moved;
    if (!fd) throw jsonLinesError("open(" + file.path + ")", fd.error());
    const OpenFile open(posix_, *fd);
    const SysResult<FileStatus> status = posix_.fstat(*fd);
    if (!status) throw jsonLinesError("fstat(" + file.path + ")", status.error());
    if (FileIdentity{status->device, status->inode} != file.identity) return Outcome::moved;
    std::uint64_t offset = 0;
    if (position_ && position_->file() == file.identity) offset = position_->offset;
    if (!begun_ && !isBehindALine(open.get(), file, offset)) {
      position_.reset();
      return Outcome::moved;
    }
    begun_ = true;
    const std::uint64_t end = readLines(open.get(), file, offset);
    progress_.cursor = position_ = JSONLinesCursor{file.identity.deviceID, file.identity.inode, end};
    return consumed_ >= maxBatchBytes ? Outcome::enough : Outcome::goOn;
  }

  // Inode numbers are used again: a cursor that points into a line isn't one of this file.
  [[nodiscard]] bool isBehindALine(int fd, const LogFile& file, std::uint64_t offset) {
    std::array<std::byte, 1> last{};
    return offset == 0 || (readAt(fd, file, last, offset - 1) == 1 && last[0] == std::byte{'\n'});
  }

  [[nodiscard]] std::size_t readAt(int fd, const LogFile& file, std::span<std::byte> into, std::uint64_t offset) {
    for (;;) {
      const SysResult<std::size_t> got = posix_.pread(fd, into, offset);
      if (got) return *got;
      if (got.error() != EINTR) throw jsonLinesError("read(" + file.path + ")", got.error());
    }
  }

  // Answers the offset behind the last line feed.
  [[nodiscard]] std::uint64_t readLines(int fd, const LogFile& file, const std::uint64_t from) {
    std::uint64_t start = from;  // of the line at hand
    std::uint64_t at = from;
    std::string begun;  // what earlier chunks hold of that line
    const auto spent = [&] { return consumed_ + (start - from) >= maxBatchBytes; };
    while (!spent()) {
      const std::size_t got = readAt(fd, file, chunk_, at);
      if (got == 0) break;
      at += got;
      std::string_view rest(reinterpret_cast<const char*>(chunk_.data()), got);
      for (auto feed = rest.find('\n'); feed != std::string_view::npos && !spent(); feed = rest.find('\n')) {
        const std::uint64_t end = at - rest.size() + feed;
        takeLine(file, start, end - start, begun.empty() ? rest.substr(0, feed) : begun.append(rest.substr(0, feed)));
        begun.clear();
        rest.remove_prefix(feed + 1);
        start = end + 1;
      }
      begun.append(rest.substr(0, maxJSONLineBytes - std::min(begun.size(), maxJSONLineBytes)));
    }
    consumed_ += start - from;
    return start;
  }

  void takeLine(const LogFile& file, std::uint64_t start, std::uint64_t length, std::string_view line) {
    if (length == 0) return;
    try {
      if (length >= maxJSONLineBytes) throw Error("NSCocoaErrorDomain", 4864, "The line is too long");
      take_(line);
    } catch (const std::bad_alloc&) {
      throw;
    } catch (const std::exception& exception) {
      if (++progress_.skippedCorruptLines > maxLoggedLines) return;
      log_.log(
          PlatformLogType::error, platformLogSubsystem, description_.logCategory,
          fmt::format("skipping corrupt row in {} at byte {}: {}", file.path, start, asError(exception).description()));
    }
  }

  Posix& posix_;
  PlatformLog& log_;
  const JSONLinesDescription& description_;
  FunctionRef<void(std::string_view)> take_;

  JSONLinesProgress progress_;
  std::optional<JSONLinesCursor> position_;
  bool begun_ = false;  // a file was read: what lies before position_ was given
  std::uint64_t consumed_ = 0;
  std::vector<std::byte> chunk_ = std::vector<std::byte>(chunkBytes);
};

}  // namespace

JSONLinesProgress LineReader::readSince(std::optional<JSONLinesCursor> cursor,
                                        FunctionRef<void(std::string_view line)> take) const {
  try {
    return Read(posix_, log_, description_, take).run(cursor);
  } catch (const std::exception& exception) {
    const std::string what = asError(exception).description();
    log_.log(PlatformLogType::error, platformLogSubsystem, description_.logCategory, "readSince failed: " + what);
    return {.error = what};
  }
}

}  // namespace quillmark
