#include "service/HelperLogWriter.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>

#include "base/Text.h"
#include "platform/PlatformLog.h"
#include "platform/ThisProcess.h"
#include "platform/posix.h"
#include "service/ShortText.h"
#include "snapshots/LogNames.h"

namespace quillmark {
namespace {

constexpr std::int64_t rotationThreshold = 8'388'608;
constexpr int sizeCheckInterval = 512;
constexpr std::string_view category = "main";
constexpr std::size_t longestMessage = 65536;  // for the platform

std::string_view word(LogLevel level) {
  switch (level) {
    case LogLevel::info: return "INFO ";
    case LogLevel::warning: return "WARN ";
    case LogLevel::error: return "ERROR";
  }
  return "";
}

PlatformLogType typeOf(LogLevel level) {
  switch (level) {
    case LogLevel::info: return PlatformLogType::info;
    case LogLevel::warning: return PlatformLogType::normal;
    case LogLevel::error: return PlatformLogType::error;
  }
  return PlatformLogType::normal;
}

// A peer's text must not be able to write lines of its own, or to fill the disk.
std::string onOneLine(std::string_view message) {
  constexpr std::size_t most = 4096;
  std::string line;
  for (const char c : shortText(message, most)) {
    const auto byte = static_cast<unsigned char>(c);
    line += byte < 0x20 || byte == 0x7F ? fmt::format("\\x{:02x}", byte) : std::string(1, c);
  }
  return line;
}

std::string_view withoutEnding(std::string_view file) { return file.substr(0, file.rfind('.')); }

}  // namespace

HelperLogWriter::HelperLogWriter(Threads& threads, Clock& clock, Posix& posix, PlatformLog& platformLog,
                                 ThisProcess& process, std::string logFile, Rotation rotation)
    : clock_(clock), posix_(posix), platformLog_(platformLog), process_(process), logFile_(std::move(logFile)),
      previous_(logFile_ + ".previous"), rotation_(rotation), lock_(threads) {}

void HelperLogWriter::emit(LogLevel level, std::string_view message, CodeLocation where) {
  rotateIfDue();
  const LocalTime now = clock_.local(clock_.now());
  const std::string line =
      fmt::format("[{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03}] [{}] [pid={}] {}  ({}:{})\n", now.year, now.month,
                  now.day, now.hour, now.minute, now.second, now.millisecond, word(level), process_.pid(),
                  onOneLine(message), withoutEnding(where.file), where.line);
  if (isValidUtf8(line)) process_.writeStandardError(line);
  platformLog_.log(typeOf(level), LogNames::subsystem, category, message.substr(0, longestMessage));
}

void HelperLogWriter::rotateIfDue() {
  if (rotation_ == Rotation::never) return;
  MutexLock lock(lock_);
  if (++emitsSinceSizeCheck_ < sizeCheckInterval) return;
  emitsSinceSizeCheck_ = 0;
  const auto status = posix_.lstat(logFile_);
  if (!status || status->size < rotationThreshold) return;
  (void)posix_.unlink(previous_);
  copyToPrevious();
  truncateLog();
  platformLog_.log(PlatformLogType::normal, LogNames::subsystem, category,
                   fmt::format("helper log rotated at {} bytes", status->size));
}

void HelperLogWriter::copyToPrevious() {
  const auto from = posix_.open(logFile_, {.read = true, .noFollow = true});
  if (!from) return;
  const OpenFile source(posix_, *from);
  const auto to = posix_.open(previous_, {.write = true, .create = true, .exclusive = true, .mode = 0640});
  if (!to) return;
  const OpenFile target(posix_, *to);
  std::array<std::byte, 65536> chunk;
  while (true) {
    const auto got = posix_.read(source.get(), chunk);
    if (!got && got.error() == EINTR) continue;
    if (!got || *got == 0) return;
    std::string_view rest(reinterpret_cast<const char*>(chunk.data()), *got);
    while (!rest.empty()) {
      const auto put = posix_.write(target.get(), rest);
      if (!put && put.error() == EINTR) continue;
      if (!put) return;
      rest.remove_prefix(*put);
    }
  }
}

// In place, so that standard error stays valid: the file itself never moves.
void HelperLogWriter::truncateLog() {
  const auto opened = posix_.open(logFile_, {.write = true, .noFollow = true});
  if (!opened) return;
  const OpenFile file(posix_, *opened);
  (void)posix_.ftruncate(file.get(), 0);
}

}  // namespace quillmark
