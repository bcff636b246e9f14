// HelperLogWriter: one line to standard error and one to the platform's log for each call, and the rotation of the file
// that standard error goes to.
// Threads: thread-safe; a line is one write. A line that lands between a rotation's copy and its truncation is lost.
// Errors:  none.
#pragma once

#include <string>

#include "base/HelperLog.h"
#include "platform/sync.h"

namespace quillmark {

class PlatformLog;
class Posix;
class ThisProcess;

class HelperLogWriter final : public HelperLog {
 public:
  // rotates: standard error is the log file, opened by us. Nobody else's file is ever rotated.
  enum class Rotation { never, ofLogFile };
  HelperLogWriter(Threads& threads, Clock& clock, Posix& posix, PlatformLog& platformLog, ThisProcess& process,
                  std::string logFile, Rotation rotation);

 protected:
  void emit(LogLevel level, std::string_view message, CodeLocation where) override;

 private:
  void rotateIfDue();
  void copyToPrevious();
  void truncateLog();

  Clock& clock_;
  Posix& posix_;
  PlatformLog& platformLog_;
  ThisProcess& process_;
  const std::string logFile_;
  const std::string previous_;
  const Rotation rotation_;

  Mutex lock_;  // held over the copy: other threads that log wait for it
  int emitsSinceSizeCheck_ GUARDED_BY(lock_) = 0;
};

}  // namespace quillmark
