#include "journal/LineWriter.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>

#include "base/Text.h"
#include "journal/LogFiles.h"
#include "platform/Files.h"
#include "platform/PlatformLog.h"
#include "platform/clock.h"
#include "platform/posix.h"

namespace quillmark {
namespace {

constexpr std::uint32_t directoryMode = 0755;
constexpr std::uint32_t fileMode = 0644;

using Milliseconds = std::chrono::milliseconds;

std::string operation(std::string_view call, std::string_view path) { return fmt::format("{}({})", call, path); }

void demand(const SysStatus& status, std::string_view call, std::string_view path) {
  if (!status) throw jsonLinesError(operation(call, path), status.error());
}

OpenFile opened(Posix& posix, const std::string& path, OpenFlags flags) {
  const SysResult<int> fd = posix.open(path, flags);
  if (!fd) throw jsonLinesError(operation("open", path), fd.error());
  return OpenFile(posix, *fd);
}

void syncEntries(Posix& posix, const std::string& path) {
  const OpenFile directory = opened(posix, path, {.read = true});
  demand(posix.fsync(directory.get()), "fsync", path);
}

bool isDirectory(Posix& posix, const std::string& path) {
  const SysResult<FileStatus> status = posix.lstat(path);
  if (!status || status->type != FileType::symlink) return status && status->type == FileType::directory;
  const SysResult<int> fd = posix.open(path, {.read = true, .directory = true});
  if (fd) posix.close(*fd);
  return fd.ok();
}

// "20260314-091502.417", in UTC.
std::string timestampText(Milliseconds since1970) {
  const std::chrono::sys_time<Milliseconds> moment(since1970);
  const auto day = std::chrono::floor<std::chrono::days>(moment);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss time(moment - day);
  return fmt::format("{:04}{:02}{:02}-{:02}{:02}{:02}.{:03}", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), time.hours().count(),
                     time.minutes().count(), time.seconds().count(), time.subseconds().count());
}

// The timestamp that an archive's name begins with behind its prefix.
std::optional<Milliseconds> timestampIn(std::string_view text) {
  static constexpr std::string_view shape = "dddddddd-dddddd.ddd-";
  if (text.size() < shape.size()) return std::nullopt;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (digit != (shape[i] == 'd') || (!digit && text[i] != shape[i])) return std::nullopt;
  }
  const auto number = [&](std::size_t at, std::size_t length) {
    int value = 0;
    std::from_chars(text.data() + at, text.data() + at + length, value);
    return value;
  };
  const std::chrono::year_month_day date(std::chrono::year(number(0, 4)),
                                         std::chrono::month(static_cast<unsigned>(number(4, 2))),
                                         std::chrono::day(static_cast<unsigned>(number(6, 2))));
  if (!date.ok()) return std::nullopt;
  return std::chrono::sys_days(date).time_since_epoch() + std::chrono::hours(number(9, 2)) +
         std::chrono::minutes(number(11, 2)) + std::chrono::seconds(number(13, 2)) + Milliseconds(number(16, 3));
}

}  // namespace

LineWriter::LineWriter(Posix& posix, PlatformLog& log, Clock& clock, JSONLinesDescription description)
    : posix_(posix), log_(log), clock_(clock), description_(std::move(description)),
      currentPath_(description_.currentPath()) {}

std::optional<Error> LineWriter::append(FunctionRef<std::string()> encode) {
  try {
    ensureDirectory();
    rotateIfNeeded();
    // A record in which somebody put ill-formed text would be stored and never read again.
    std::string line = repairUtf8(encode());
    line += '\n';
    if (line.size() > maxJSONLineBytes) throw jsonLinesError(operation("write", currentPath_), EFBIG);
    write(std::move(line));
    return std::nullopt;
  } catch (const std::exception& exception) {
    Error error = asError(exception);
    logError(fmt::format("append failed: {}", error.description()));
    return error;
  }
}

void LineWriter::ensureDirectory() {
  if (directoryIsDurable_ && isDirectory(posix_, description_.directoryPath)) return;
  directoryIsDurable_ = namesAreDurable_ = false;
  ensureDirectory(description_.directoryPath);
  directoryIsDurable_ = true;
}

// A directory's name is synced before anything is made in it, so that of those an earlier process left only the deepest
// can be unsynced.
void LineWriter::ensureDirectory(const std::string& path) {
  const std::string parent = parentDirectory(path);
  if (!isDirectory(posix_, path)) {
    if (parent != path) ensureDirectory(parent);
    demand(posix_.mkdir(path, directoryMode), "mkdir", path);
    demand(posix_.chmod(path, directoryMode), "chmod", path);
  }
  syncEntries(posix_, parent);
}

void LineWriter::rotateIfNeeded() {
  const SysResult<FileStatus> current = posix_.lstat(currentPath_);
  if (!current || static_cast<std::uint64_t>(current->size) < description_.rotationBytes) return;
  ++rotationSequence_;
  const std::string archive = description_.directoryPath + "/" + archiveName();
  const std::string renaming = fmt::format("rename({} → {})", currentPath_, archive);
  // rename(2) would replace what has the name without a word.
  const SysResult<FileStatus> taken = posix_.lstat(archive);
  if (taken || taken.error() != ENOENT) throw jsonLinesError(renaming, taken ? EEXIST : taken.error());
  const SysStatus renamed = posix_.rename(currentPath_, archive);
  if (!renamed) throw jsonLinesError(renaming, renamed.error());
  namesAreDurable_ = false;
  if (const SysStatus changed = posix_.chmod(archive, fileMode); !changed) {
    logError(fmt::format("chmod({}) failed: {}", archive, errnoText(changed.error())));
  }
  syncNames();
  prune();
}

// Ascending names are the order of age even when the clock was set back.
std::string LineWriter::archiveName() {
  Milliseconds time(static_cast<std::int64_t>(std::floor(clock_.now().secondsSince1970() * 1000)));
  for (const LogFile& archive : archives()) {
    const auto taken = timestampIn(std::string_view(archive.name).substr(description_.archivePrefix.size()));
    if (taken && *taken >= time) time = *taken + Milliseconds(1);
  }
  return fmt::format("{}{}-{:04}{}", description_.archivePrefix, timestampText(time), rotationSequence_,
                     description_.archiveSuffix);
}

// None when they can't be listed: then nothing is pruned, and names go by the clock alone.
std::vector<LogFile> LineWriter::archives() {
  try {
    std::vector<LogFile> files = listLogFiles(posix_, description_);
    if (!files.empty() && files.back().isCurrent) files.pop_back();
    return files;
  } catch (const Error&) {
    return {};
  }
}

void LineWriter::prune() {
  const std::vector<LogFile> files = archives();
  const auto retained = static_cast<std::size_t>(description_.retainedArchiveCount);
  for (std::size_t i = 0; i + retained < files.size(); ++i) {
    if (const SysStatus removed = posix_.unlink(files[i].path); !removed) {
      logError(fmt::format("could not prune {}: {}", files[i].path, errnoText(removed.error())));
    }
  }
}

void LineWriter::write(std::string line) {
  const SysResult<FileStatus> before = posix_.lstat(currentPath_);
  if (!before && !namesAreDurable_) syncNames();
  const OpenFile file =
      opened(posix_, currentPath_,
             {.read = true, .write = true, .append = true, .create = true, .noFollow = true, .mode = fileMode});
  if (!before) namesAreDurable_ = false;
  demand(posix_.fchmod(file.get(), fileMode), "fchmod", currentPath_);
  // Behind a torn tail the record would share the tail's fate; an empty line does no harm.
  if (tailIsSuspect_ || !endsInLineFeed(file.get())) line.insert(line.begin(), '\n');
  writeAll(file.get(), line);
  tailIsSuspect_ = true;
  demand(posix_.fsync(file.get()), "fsync", currentPath_);
  tailIsSuspect_ = false;
  if (!namesAreDurable_) syncNames();
}

void LineWriter::writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const SysResult<std::size_t> put = posix_.write(fd, bytes);
    if (!put && put.error() == EINTR) continue;
    if (!put) throw jsonLinesError(operation("write", currentPath_), put.error());
    if (*put == 0) throw jsonLinesError(operation("write", currentPath_), EIO);
    bytes.remove_prefix(*put);
  }
}

bool LineWriter::endsInLineFeed(int fd) {
  const SysResult<FileStatus> now = posix_.fstat(fd);
  if (!now || now->size == 0) return now.ok();
  std::array<std::byte, 1> last{};
  const SysResult<std::size_t> got = posix_.pread(fd, last, static_cast<std::uint64_t>(now->size - 1));
  return got && *got == 1 && last[0] == std::byte{'\n'};
}

void LineWriter::syncNames() {
  syncEntries(posix_, description_.directoryPath);
  namesAreDurable_ = true;
}

void LineWriter::logError(std::string_view message) {
  log_.log(PlatformLogType::error, platformLogSubsystem, description_.logCategory, message);
}

}  // namespace quillmark
