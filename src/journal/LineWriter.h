// LineWriter: appends lines to a log's current file, durably, and rotates it into archives.
// Ownership: borrows the file calls, the platform's log and the clock. No file is open between calls.
// Threads:   thread-compatible; one writer to a log.
// Errors:    append logs its failure and hands it back.
// Invariant: the names that a line is reached by are on disk before append says so, also those that an earlier process
//            left unsynced; a new current file is never made before the old one's new name is on disk.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Error.h"
#include "base/FunctionRef.h"
#include "base/SysResult.h"
#include "journal/JSONLinesFormat.h"

namespace quillmark {

class Clock;
class PlatformLog;
class Posix;

class LineWriter final {
 public:
  LineWriter(Posix& posix, PlatformLog& log, Clock& clock, JSONLinesDescription description);

  // `encode` gives the line without its line feed, and may throw.
  [[nodiscard]] std::optional<Error> append(FunctionRef<std::string()> encode);

 private:
  void ensureDirectory();
  void ensureDirectory(const std::string& path);
  void rotateIfNeeded();
  void prune();
  void write(std::string line);
  void writeAll(int fd, std::string_view bytes);
  void syncNames();
  [[nodiscard]] bool endsInLineFeed(int fd);
  [[nodiscard]] std::string archiveName();
  [[nodiscard]] std::vector<LogFile> archives();
  void logError(std::string_view message);

  Posix& posix_;
  PlatformLog& log_;
  Clock& clock_;
  const JSONLinesDescription description_;
  const std::string currentPath_;

  std::int64_t rotationSequence_ = 0;
  // Unknown, so false, when the process starts.
  bool directoryIsDurable_ = false;
  bool namesAreDurable_ = false;
  // A failed fsync may have dropped what was written though it still reads well.
  bool tailIsSuspect_ = false;
};

}  // namespace quillmark
